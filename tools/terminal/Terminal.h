// What the standard streams are connected to: a terminal, its width, and colour on it.
#ifndef TSL_TOOLS_TERMINAL_TERMINAL_H
#define TSL_TOOLS_TERMINAL_TERMINAL_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Tessel::Tool {

enum class Stream { Output, Error };

// What a coloured text means.
enum class Tone {
  Plain,
  Bad,       // Red.
  Doubtful,  // Yellow.
};

// The variable `name` of the environment; empty when there is none. Any thread.
std::string_view environmentText(const char* name);

// True when `stream` is a terminal that knows escape sequences: the environment has a TERM, which
// is not "dumb". Asked once. Any thread.
bool isTerminal(Stream stream);

// Columns of the terminal that standard error is, as of now; 80 where that is unknown. Any thread.
std::size_t terminalWidth();

// `text`, which must be fit to be shown, in the colour of `tone` when `stream` is a terminal and
// the environment has no NO_COLOR that is not empty; otherwise unchanged. Any thread.
std::string coloured(Stream stream, Tone tone, std::string_view text);

}  // namespace Tessel::Tool

#endif
