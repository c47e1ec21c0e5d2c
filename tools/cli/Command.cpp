// The command table.
#include "cli/Command.h"

#include <utility>

namespace Tessel::Tool {

CLI::App& addGroup(CLI::App& app, const std::string& name, const std::string& description) {
  CLI::App& group = *app.add_subcommand(name, description);
  group.require_subcommand(1);
  group.fallthrough();
  group.footer("'tsl-address-map " + name + " COMMAND --help' tells more about a command.");
  return group;
}

CLI::App& addCommand(CLI::App& parent, const std::string& name, const std::string& description,
                     const std::string& examples, Choice& chosen, Choice choice) {
  CLI::App& command = *parent.add_subcommand(name, description);
  // Global options may stand behind the command words too.
  command.fallthrough();
  command.footer("Examples:\n" + examples +
                 "\nGlobal options and exit codes: 'tsl-address-map --help'.");
  command.callback([&chosen, choice = std::move(choice)]() { chosen = choice; });
  return command;
}

}  // namespace Tessel::Tool
