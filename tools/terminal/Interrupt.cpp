// What to tidy up when a signal ends the tool.
#include "terminal/Interrupt.h"

#include <array>
#include <atomic>
#include <stdexcept>

namespace Tessel::Tool {

namespace {

using Function = void (*)();

constexpr std::array<int, 3> s_signals = {SIGHUP, SIGINT, SIGTERM};

// Null where there is none. Lock-free, as a handler reads them.
std::array<std::atomic<Function>, 4> s_functions{};
static_assert(std::atomic<Function>::is_always_lock_free);

extern "C" void s_endTidily(int signal) {
  for (const std::atomic<Function>& function : s_functions) {
    const Function tidyUp = function.load();
    if (tidyUp != nullptr) tidyUp();
  }
  // The process ends as it would have without this handler.
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void s_handleSignals() {
  for (const int signal : s_signals) {
    struct sigaction before {};
    // Signals that the caller ignores stay ignored.
    if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    std::signal(signal, s_endTidily);
  }
}

}  // namespace

void tidyUpOnInterrupt(void (*tidyUp)()) {
  for (std::atomic<Function>& function : s_functions) {
    if (function.load() == tidyUp) return;
    if (function.load() != nullptr) continue;
    function.store(tidyUp);
    s_handleSignals();
    return;
  }
  throw std::logic_error("no room for another function to tidy up");
}

Uninterrupted::Uninterrupted() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : s_signals) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, &m_before);
}

Uninterrupted::~Uninterrupted() {
  pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

}  // namespace Tessel::Tool
