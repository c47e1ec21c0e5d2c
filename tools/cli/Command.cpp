// The command line, read by CLI11.
#include "cli/Command.h"

#include <utility>

#include <CLI/CLI.hpp>

namespace Tessel::Tool {

namespace {

constexpr char s_program[] = "tsl-address-map";

// Adds an argument or option that leaves `value` empty when it is not given.
CLI::Option& s_addOptional(CLI::App& app, const std::string& name,
                           std::optional<std::string>& value, const std::string& help) {
  return *app.add_option_function<std::string>(
      name, [&value](const std::string& text) { value = text; }, help);
}

// What is wrong with the words that `app` could not read.
std::string s_usageFault(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining(true);
  const bool command = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  return command && !unknown.empty() ? "there is no command '" + unknown[0] + "'"
                                     : std::string(error.what());
}

}  // namespace

void Option::needs(const Option& other) {
  m_option->needs(other.m_option);
}

void Option::excludes(const Option& other) {
  m_option->excludes(other.m_option);
}

Command::Command(CLI::App& app, std::string words, Choice& chosen)
    : m_app(&app), m_words(std::move(words)), m_chosen(&chosen) {}

Command Command::group(const std::string& name, const std::string& description) {
  CLI::App& group = *m_app->add_subcommand(name, description);
  group.require_subcommand(1);
  group.fallthrough();
  group.footer("'" + std::string(s_program) + " " + name + " COMMAND --help' describes a command.");
  return {group, name, *m_chosen};
}

Command Command::command(const std::string& name, const std::string& description,
                         const std::string& examples, Preparation preparation, Run run) {
  CLI::App& command = *m_app->add_subcommand(name, description);
  // Global options may come after the command words too.
  command.fallthrough();
  command.footer("Examples:\n" + examples + "\nGlobal options and exit status: '" + s_program +
                 " --help'.");
  const std::string words = m_words.empty() ? name : m_words + " " + name;
  command.callback([chosen = m_chosen, choice = Choice{words, preparation, std::move(run)}]() {
    *chosen = choice;
  });
  return {command, words, *m_chosen};
}

void Command::argument(const std::string& name, std::string& value, const std::string& help) {
  m_app->add_option(name, value, help)->required();
}

void Command::arguments(const std::string& name, std::vector<std::string>& values,
                        const std::string& help) {
  m_app->add_option(name, values, help)->required();
}

void Command::optionalArgument(const std::string& name, std::string& value,
                               const std::string& help) {
  m_app->add_option(name, value, help);
}

void Command::optionalArgument(const std::string& name, std::optional<std::string>& value,
                               const std::string& help) {
  s_addOptional(*m_app, name, value, help);
}

void Command::optionalArguments(const std::string& name, std::vector<std::string>& values,
                                const std::string& help) {
  m_app->add_option(name, values, help);
}

Option Command::option(const std::string& name, std::string& value, const std::string& valueName,
                       const std::string& help) {
  const std::string shown = value.empty() ? help : help + " (" + value + ")";
  return Option(*m_app->add_option(name, value, shown)->option_text(valueName));
}

Option Command::option(const std::string& name, std::optional<std::string>& value,
                       const std::string& valueName, const std::string& help) {
  return Option(*s_addOptional(*m_app, name, value, help).option_text(valueName));
}

Option Command::optionList(const std::string& name, std::vector<std::string>& values,
                           const std::string& valueName, const std::string& help) {
  // One value for each time that it is named, or else it would take arguments for values.
  CLI::Option& option = *m_app->add_option(name, values, help);
  return Option(
      *option.option_text(valueName)->expected(1)->allow_extra_args(false)->multi_option_policy(
          CLI::MultiOptionPolicy::TakeAll));
}

Option Command::flag(const std::string& name, bool& value, const std::string& help) {
  return Option(*m_app->add_flag(name, value, help));
}

Option Command::flagWithValue(const std::string& name, std::optional<std::string>& value,
                              const std::string& valueName, const std::string& help) {
  CLI::Option& option = *m_app->add_flag(name, help);
  // The parser gives an option without a value the text "true".
  option.each([&value](const std::string& text) { value = text == "true" ? "" : text; });
  option.option_text(valueName)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  return Option(option);
}

CommandLine::CommandLine(const std::string& description, const std::string& footer)
    : m_app(std::make_unique<CLI::App>(description, s_program)) {
  m_app->require_subcommand(1);
  m_app->footer(footer);
  m_app->get_formatter()->label("TEXT", "");
  m_app->get_formatter()->label("REQUIRED", "");
  m_app->get_formatter()->column_width(26);
  m_app->set_version_flag("--version", std::string(s_program) + " " TSL_VERSION,
                          "Print the version");
}

CommandLine::~CommandLine() = default;

Command CommandLine::top() {
  return {*m_app, "", m_chosen};
}

const Choice* CommandLine::parse(int argc, const char* const* argv) {
  try {
    m_app->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) {
      throw Failure(ExitCode::Usage, "usage", s_usageFault(*m_app, error),
                    "see '" + std::string(s_program) + " --help'");
    }
    m_app->exit(error);
    return nullptr;
  }
  return &m_chosen;
}

}  // namespace Tessel::Tool
