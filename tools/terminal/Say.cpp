// Messages for the person at the terminal.
#include "terminal/Say.h"

#include <cstdio>

#include "terminal/Progress.h"
#include "terminal/Terminal.h"

namespace Tessel::Tool {

void say(std::string_view text) {
  // The word that such messages begin with.
  constexpr std::string_view warning = "warning";
  if (!text.starts_with(warning)) return sayShown(printable(text));
  sayShown(coloured(Stream::Error, Tone::Doubtful, warning) +
           printable(text.substr(warning.size())));
}

void sayShown(const std::string& text) {
  const Progress::Hidden hidden;
  // One call for the whole line, so that lines of several processes do not mix.
  const std::string line = "tsl-address-map: " + text + "\n";
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

void report(const Failure& failure) {
  sayShown(coloured(Stream::Error, Tone::Bad, printable(failure.subject())) + ": " +
           printable(failure.why()));
  if (!failure.hint().empty()) say("hint: " + failure.hint());
}

}  // namespace Tessel::Tool
