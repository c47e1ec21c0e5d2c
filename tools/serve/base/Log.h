// The log of the lookup service: lines on standard error, which the journal takes.
#ifndef TSL_TOOLS_SERVE_BASE_LOG_H
#define TSL_TOOLS_SERVE_BASE_LOG_H

#include <string>
#include <string_view>

#include "base/Guarded.h"

namespace Tessel::Serve {

// In ascending order of detail. Addresses are named at `Debug` only.
enum class LogLevel { Error, Warning, Info, Debug };

// Any thread may call any operation; each line is written whole.
class Log {
 public:
  // Writes lines up to `level`. Under systemd, which says so in the environment (JOURNAL_STREAM),
  // each begins with its priority, see sd-daemon(3).
  explicit Log(LogLevel level);

  [[nodiscard]] bool isDebug() const noexcept { return m_level == LogLevel::Debug; }

  // `text` may hold any bytes; control characters and broken UTF-8 are shown as \xNN. Never throws;
  // a line that cannot be written is lost.
  void error(std::string_view text) noexcept { write(LogLevel::Error, text); }
  void warning(std::string_view text) noexcept { write(LogLevel::Warning, text); }
  void info(std::string_view text) noexcept { write(LogLevel::Info, text); }
  void debug(std::string_view text) noexcept { write(LogLevel::Debug, text); }

 private:
  void write(LogLevel level, std::string_view text) noexcept;

  const LogLevel m_level;
  const bool m_hasPriorities;
  Guarded<int> m_descriptor;  // Locked for one line at a time.
};

}  // namespace Tessel::Serve

#endif
