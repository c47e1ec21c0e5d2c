// What the standard streams are connected to.
#include "terminal/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_usualWidth = 80;

bool s_isTerminal(int descriptor) {
  const std::string_view kind = environmentText("TERM");
  return isatty(descriptor) == 1 && !kind.empty() && kind != "dumb";
}

std::string_view s_code(Tone tone) {
  switch (tone) {
    case Tone::Bad:
      return "\033[31m";
    case Tone::Doubtful:
      return "\033[33m";
    case Tone::Plain:
      break;
  }
  return "";
}

}  // namespace

// The tool changes its environment only before there is a second thread, and such variables never.
std::string_view environmentText(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see above
  return value == nullptr ? std::string_view() : value;
}

bool isTerminal(Stream stream) {
  static const bool s_output = s_isTerminal(STDOUT_FILENO);
  static const bool s_error = s_isTerminal(STDERR_FILENO);
  return stream == Stream::Output ? s_output : s_error;
}

std::size_t terminalWidth() {
  winsize size{};
  const bool isKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return isKnown ? size.ws_col : s_usualWidth;
}

std::string coloured(Stream stream, Tone tone, std::string_view text) {
  static const bool s_isWanted = environmentText("NO_COLOR").empty();
  if (tone == Tone::Plain || !s_isWanted || !isTerminal(stream)) return std::string(text);
  return std::string(s_code(tone)).append(text).append("\033[0m");
}

}  // namespace Tessel::Tool
