// The command `answer`.
#ifndef TSL_TOOLS_ANSWERCOMMAND_H
#define TSL_TOOLS_ANSWERCOMMAND_H

#include "cli/Command.h"

namespace Tessel::Serve {

// Adds the command to the program.
void addAnswerCommand(Tool::Command& top);

}  // namespace Tessel::Serve

#endif
