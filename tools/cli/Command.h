// The command line: how a command with its arguments, its help and its action is added, and which
// one the given words name. Only Command.cpp knows the library that reads them, which takes long to
// compile.
#ifndef TSL_TOOLS_CLI_COMMAND_H
#define TSL_TOOLS_CLI_COMMAND_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/Session.h"
#include "failure/Failure.h"
#include "tables/TableFormat.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Tessel::Tool {

// What a command does.
using Run = std::function<ExitCode(Session&)>;

// `run` with the arguments that the command line fills in, which it keeps alive.
template <class Arguments>
Run withArguments(ExitCode (*run)(Session&, const Arguments&),
                  const std::shared_ptr<Arguments>& arguments) {
  return [run, arguments](Session& session) { return run(session, *arguments); };
}

// The command that the command line names.
struct Choice {
  std::string words;  // For messages: "alias set".
  Preparation preparation = Preparation::Nothing;
  Run run;
};

// An option or flag of a command. A handle, valid as long as the CommandLine. One thread.
class Option {
 public:
  explicit Option(CLI::Option& option) : m_option(&option) {}

  // Refused without `other`.
  void needs(const Option& other);
  // The two are refused together.
  void excludes(const Option& other);

 private:
  CLI::Option* m_option;
};

// A command, a group of commands, or the program itself, to which arguments and commands are added.
// --help shows them in the order in which they were added. A handle, valid as long as the
// CommandLine; so must be the values that it is given, which keep what they hold when the command
// line does not name them. One thread.
class Command {
 public:
  // `chosen` takes the command that the command line names.
  Command(CLI::App& app, std::string words, Choice& chosen);

  // Adds a group of commands, of which one must be given.
  Command group(const std::string& name, const std::string& description);
  // Adds a command, also to a command. `examples` are shown by --help.
  Command command(const std::string& name, const std::string& description,
                  const std::string& examples, Preparation preparation, Run run);

  // Adds an argument, which must be given.
  void argument(const std::string& name, std::string& value, const std::string& help);
  // Adds an argument that takes one word or more.
  void arguments(const std::string& name, std::vector<std::string>& values,
                 const std::string& help);
  // The same, which need not be given.
  void optionalArgument(const std::string& name, std::string& value, const std::string& help);
  void optionalArgument(const std::string& name, std::optional<std::string>& value,
                        const std::string& help);
  void optionalArguments(const std::string& name, std::vector<std::string>& values,
                         const std::string& help);

  // Adds an option with a value, which --help calls `valueName`; the default follows `help` there,
  // unless it is empty.
  Option option(const std::string& name, std::string& value, const std::string& valueName,
                const std::string& help);
  Option option(const std::string& name, std::optional<std::string>& value,
                const std::string& valueName, const std::string& help);
  // Adds an option with a value that may be repeated; `values` gets all of them.
  Option optionList(const std::string& name, std::vector<std::string>& values,
                    const std::string& valueName, const std::string& help);
  // Adds an option without a value; naming it sets `value`.
  Option flag(const std::string& name, bool& value, const std::string& help);
  // Adds an option that may have a value behind "="; without one, `value` is empty text. The last
  // one wins.
  Option flagWithValue(const std::string& name, std::optional<std::string>& value,
                       const std::string& valueName, const std::string& help);

 private:
  CLI::App* m_app;
  std::string m_words;  // The command words that lead here.
  Choice* m_chosen;
};

// The command line of the program, with --help and --version. One thread.
class CommandLine {
 public:
  // `footer` ends the program's --help.
  CommandLine(const std::string& description, const std::string& footer);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // The program itself, to which the global options, the groups and the commands are added.
  [[nodiscard]] Command top();
  // Fills in the values of the arguments and options that were added. The command that was chosen,
  // which lives as long as this; null when help or the version was asked for, and printed. Throws
  // Failure, `Usage`.
  const Choice* parse(int argc, const char* const* argv);

 private:
  std::unique_ptr<CLI::App> m_app;
  Choice m_chosen;
};

// The commands, by the file that has them. Each adds its own to the program, or to the group it
// takes; `format` must outlive the command line.
void addAliasCommands(Command& top);
void addAliasEditCommands(Command& alias);
void addAliasExpandCommand(Command& alias);
void addAliasPruneCommand(Command& alias);
void addAliasTreeCommand(Command& alias);
void addAliasWhoCommand(Command& alias);
void addRuleCommands(Command& alias);
void addMaskCommands(Command& top);
void addMaskExplainCommand(Command& mask);
void addMaskFindCommands(Command& mask);
void addEditCommand(Command& group, const TableFormat& format);
void addExportCommand(Command& group, const TableFormat& format);
void addImportCommand(Command& group, const TableFormat& format);
void addCheckCommand(Command& top);
void addDomainCommands(Command& top);
void addUserCommands(Command& top);
void addUserImportCommand(Command& user);
void addUserExportCommand(Command& user);
void addDomainImportCommand(Command& domain);
void addDomainExportCommand(Command& domain);
void addTableCommands(Command& top);
void addMoveCommands(Command& top);
void addHistoryCommand(Command& top);
void addDiffCommand(Command& top);
void addUndoCommand(Command& top);
void addInitCommand(Command& top);
void addStatusCommand(Command& top);
void addLocalCommands(Command& top);

}  // namespace Tessel::Tool

#endif
