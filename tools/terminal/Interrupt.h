// What to tidy up when a signal ends the tool: a line on the terminal, a file half written.
#ifndef TSL_TOOLS_TERMINAL_INTERRUPT_H
#define TSL_TOOLS_TERMINAL_INTERRUPT_H

#include <csignal>

namespace Tessel::Tool {

// Calls `tidyUp` when SIGHUP, SIGINT or SIGTERM arrives, before that signal ends the process as
// usual. Runs inside a signal handler, so it may call async-signal-safe functions only. Signals
// that the caller of the program has it ignore stay ignored. Further calls with the same function
// do nothing; there is room for four functions. One thread.
void tidyUpOnInterrupt(void (*tidyUp)());

// Blocks those signals in this thread while it exists.
class Uninterrupted {
 public:
  Uninterrupted();
  ~Uninterrupted();
  Uninterrupted(const Uninterrupted&) = delete;
  Uninterrupted& operator=(const Uninterrupted&) = delete;

 private:
  sigset_t m_before{};
};

}  // namespace Tessel::Tool

#endif
