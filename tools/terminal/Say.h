// Messages for the person at the terminal, on standard error.
#ifndef TSL_TOOLS_TERMINAL_SAY_H
#define TSL_TOOLS_TERMINAL_SAY_H

#include <string>
#include <string_view>

#include "failure/Failure.h"

namespace Tessel::Tool {

// Writes one line "tsl-address-map: `text`" to standard error, made fit to be shown. The word
// "warning" at its beginning has a colour.
void say(std::string_view text);

// The same for a text that is fit to be shown unchanged, and may have colours.
void sayShown(const std::string& text);

// Writes the failure and its hint to standard error.
void report(const Failure& failure);

}  // namespace Tessel::Tool

#endif
