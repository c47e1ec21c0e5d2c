// Asking the person at the terminal.
#ifndef TSL_TOOLS_TERMINAL_CONFIRM_H
#define TSL_TOOLS_TERMINAL_CONFIRM_H

#include <string>

namespace Tessel::Tool {

// True when there is a person to ask: standard input and standard error are a terminal.
bool canAsk();

// Asks `question` on standard error. True for an answer that begins with "y"; false for any other
// one, and at the end of the input.
bool confirm(const std::string& question);

}  // namespace Tessel::Tool

#endif
