// The log of the lookup service: lines on standard error, which the journal takes.
#ifndef TSL_TOOLS_SERVE_BASE_LOG_H
#define TSL_TOOLS_SERVE_BASE_LOG_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>

#include "base/Guarded.h"

namespace Tessel::Serve {

using namespace std::chrono_literals;

// In ascending order of detail. Addresses are named at `Debug` only.
enum class LogLevel { Error, Warning, Info, Debug };

// A thread of its own writes the lines: who logs never waits. If nobody reads them, lines are lost
// and counted. An error or warning that comes again within a minute is only counted, too, so that
// nobody fills the log from outside; the next one after that says how many there were. Any thread
// may call any operation; each line is written whole.
class Log {
 public:
  // Writes lines up to `level`. Under systemd, which says so in the environment (JOURNAL_STREAM),
  // each begins with its priority, see sd-daemon(3). What comes again within `quiet` is counted.
  explicit Log(LogLevel level, std::chrono::milliseconds quiet = 1min);
  // Writes what is left, and waits a moment for someone to read it.
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  [[nodiscard]] bool isDebug() const noexcept { return m_level == LogLevel::Debug; }

  // `text` may hold any bytes; control characters and broken UTF-8 are shown as \xNN. Never throws;
  // a line that cannot be written is lost.
  void error(std::string_view text) noexcept { write(LogLevel::Error, text); }
  void warning(std::string_view text) noexcept { write(LogLevel::Warning, text); }
  void info(std::string_view text) noexcept { write(LogLevel::Info, text); }
  void debug(std::string_view text) noexcept { write(LogLevel::Debug, text); }

  // Waits a moment until all lines are written.
  void flush();
  // Number of lines that were lost because they could not be written.
  [[nodiscard]] std::uint64_t lost() const noexcept { return m_lost; }

 private:
  using Clock = std::chrono::steady_clock;

  // A message that was written lately.
  struct Recent {
    Clock::time_point written;
    std::uint64_t again = 0;  // How often it came since.
  };
  struct State {
    std::deque<std::string> lines;
    bool isWriting = false;
    bool isEnding = false;
    std::map<std::string, Recent, std::less<>> recent;
  };

  void write(LogLevel level, std::string_view text) noexcept;
  // `text`, with how often it came again since it was last written; empty when it is too early.
  [[nodiscard]] std::string again(State& state, std::string_view text) const;
  void run();
  void writeLine(const std::string& line);

  const LogLevel m_level;
  const std::chrono::milliseconds m_quiet;
  const bool m_hasPriorities;
  std::atomic<std::uint64_t> m_lost = 0;
  std::atomic<bool> m_isEnding = false;
  Guarded<State> m_state;
  std::condition_variable_any m_wake;
  std::thread m_thread;
};

}  // namespace Tessel::Serve

#endif
