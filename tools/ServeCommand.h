// The command `serve`.
#ifndef TSL_TOOLS_SERVECOMMAND_H
#define TSL_TOOLS_SERVECOMMAND_H

#include "cli/Command.h"

namespace Tessel::Serve {

// Adds the command to the program.
void addServeCommand(Tool::Command& top);

}  // namespace Tessel::Serve

#endif
