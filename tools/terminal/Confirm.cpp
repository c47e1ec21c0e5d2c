// Asking the person at the terminal.
#include "terminal/Confirm.h"

#include <unistd.h>

#include <cstdio>

#include "failure/Failure.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

bool canAsk() {
  return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

bool confirm(const std::string& question) {
  const Progress::Hidden hidden;
  static_cast<void>(std::fprintf(stderr, "%s [y/N] ", printable(question).c_str()));
  const int answer = std::getc(stdin);
  for (int rest = answer; rest != EOF && rest != '\n';) rest = std::getc(stdin);
  return answer == 'y' || answer == 'Y';
}

}  // namespace Tessel::Tool
