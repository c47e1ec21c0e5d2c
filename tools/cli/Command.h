// The command table: how a command with its arguments, help and action is put into the parser of
// the command line.
#ifndef TSL_TOOLS_CLI_COMMAND_H
#define TSL_TOOLS_CLI_COMMAND_H

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/Failure.h"
#include "cli/Session.h"
#include "cli/TableFormat.h"

namespace Tessel::Tool {

// The command that the command line names.
struct Choice {
  std::string words;  // For messages: "alias set".
  Preparation preparation = Preparation::Nothing;
  std::function<ExitCode(Session&)> run;
};

// Adds a group of commands, of which one must be given.
CLI::App& addGroup(CLI::App& app, const std::string& name, const std::string& description);

// Adds a command under `parent`; parsing the command line sets `chosen` to `choice`. `examples` are
// shown by --help. `chosen` must outlive the parser.
CLI::App& addCommand(CLI::App& parent, const std::string& name, const std::string& description,
                     const std::string& examples, Choice& chosen, Choice choice);

// The commands, by the file that has them. Each adds its own to `app`, or to the group it takes;
// `format` must outlive the parser.
void addAliasCommands(CLI::App& app, Choice& chosen);
void addAliasEditCommands(CLI::App& alias, Choice& chosen);
void addAliasExpandCommand(CLI::App& alias, Choice& chosen);
void addAliasTreeCommand(CLI::App& alias, Choice& chosen);
void addAliasWhoCommand(CLI::App& alias, Choice& chosen);
void addMaskCommands(CLI::App& app, Choice& chosen);
void addMaskExplainCommand(CLI::App& mask, Choice& chosen);
void addMaskFindCommands(CLI::App& mask, Choice& chosen);
void addExportCommand(CLI::App& group, const TableFormat& format, Choice& chosen);
void addImportCommand(CLI::App& group, const TableFormat& format, Choice& chosen);
void addCheckCommand(CLI::App& app, Choice& chosen);
void addDomainCommands(CLI::App& app, Choice& chosen);
void addUserCommands(CLI::App& app, Choice& chosen);
void addUserImportCommand(CLI::App& user, Choice& chosen);
void addTableCommands(CLI::App& app, Choice& chosen);
void addInitCommand(CLI::App& app, Choice& chosen);
void addStatusCommand(CLI::App& app, Choice& chosen);
void addLocalCommands(CLI::App& app, Choice& chosen);

}  // namespace Tessel::Tool

#endif
