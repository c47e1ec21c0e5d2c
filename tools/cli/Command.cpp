// The command line, read by CLI11.
#include "cli/Command.h"

#include <algorithm>
#include <cstddef>
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

// How many characters must be inserted, deleted, replaced or swapped with their neighbours to make
// one word of the other.
std::size_t s_distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> cost(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) cost[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) cost[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = cost[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, replaced});
      const bool isSwap = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (isSwap) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
    }
  }
  return cost[a.size()][b.size()];
}

// The word of `known` that `word` is most likely meant to be; empty when none is near.
std::string s_nearest(const std::string& word, const std::vector<std::string>& known) {
  constexpr std::size_t s_longest = 40;  // No word of ours is as long, and the comparison is slow.
  if (word.size() > s_longest) return "";
  std::string nearest;
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  for (const std::string& other : known) {
    const bool isStart = word.size() > 1 && other.starts_with(word);
    const std::size_t distance = isStart ? 1 : s_distance(word, other);
    if (distance >= least) continue;
    least = distance;
    nearest = other;
  }
  return nearest;
}

// The command at the end of those that were read, with its words.
const CLI::App& s_lastCommand(const CLI::App& app, std::string& words) {
  const CLI::App* last = &app;
  for (auto read = app.get_subcommands(); !read.empty(); read = last->get_subcommands()) {
    last = read.front();
    words += (words.empty() ? "" : " ") + last->get_name();
  }
  return *last;
}

std::vector<std::string> s_commandsOf(const CLI::App& app) {
  std::vector<std::string> names;
  const auto all = [](const CLI::App* /*command*/) { return true; };
  for (const CLI::App* command : app.get_subcommands(all)) names.push_back(command->get_name());
  return names;
}

// The options that may follow the words of `app`: its own, and those of the groups it is in.
std::vector<std::string> s_optionsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* owner = &app; owner != nullptr; owner = owner->get_parent()) {
    for (const CLI::Option* option : owner->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back(name);
    }
  }
  return names;
}

// What is wrong with the words that `app` could not read, and what may have been meant.
Failure s_usageFailure(const CLI::App& app, const CLI::ParseError& error) {
  std::string words;
  const CLI::App& command = s_lastCommand(app, words);
  const std::vector<std::string> commands = s_commandsOf(command);
  const std::vector<std::string> unknown = app.remaining(true);
  const auto option = std::find_if(unknown.begin(), unknown.end(), [](const std::string& word) {
    return word.starts_with('-') && word != "-";
  });
  const bool isMissing = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  std::string why = isMissing && !commands.empty() ? "a command is missing" : error.what();
  std::string meant;
  if (!commands.empty() && !unknown.empty() && option != unknown.begin()) {
    const std::string start = words.empty() ? "" : words + " ";
    why = "there is no command '" + start + unknown.front() + "'";
    meant = s_nearest(unknown.front(), commands);
    if (!meant.empty()) meant.insert(0, start);
  } else if (option != unknown.end()) {
    const std::string name = option->substr(0, option->find('='));
    why = (words.empty() ? "there is" : "'" + words + "' has") + " no option '" + name + "'";
    meant = s_nearest(name.substr(std::min(name.size(), name.find_first_not_of('-'))),
                      s_optionsOf(command));
    if (!meant.empty()) meant.insert(0, "--");
  } else if (!unknown.empty()) {
    why = "'" + words + "' takes no further argument '" + unknown.front() + "'";
  }
  const std::string help = std::string(s_program) + (words.empty() ? "" : " " + words) + " --help";
  return {
      ExitCode::Usage, "usage", why,
      meant.empty() ? "see '" + help + "'" : "did you mean '" + meant + "'? See '" + help + "'"};
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
  command.callback(
      [&command, chosen = m_chosen, choice = Choice{words, preparation, std::move(run)}]() {
        // A command below it was chosen before.
        if (command.get_subcommands().empty()) *chosen = choice;
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
      throw s_usageFailure(*m_app, error);
    }
    m_app->exit(error);
    return nullptr;
  }
  return &m_chosen;
}

}  // namespace Tessel::Tool
