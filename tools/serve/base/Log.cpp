// The log of the lookup service.
#include "serve/base/Log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>

#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

// Priorities of syslog(3), in the order of the levels.
constexpr std::string_view s_priorities[] = {"<3>", "<4>", "<6>", "<7>"};
constexpr std::string_view s_names[] = {"error", "warning", "info", "debug"};

void s_writeAll(int descriptor, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

Log::Log(LogLevel level)
    : m_level(level),
      // NOLINTNEXTLINE(concurrency-mt-unsafe): the service does not change its environment
      m_hasPriorities(getenv("JOURNAL_STREAM") != nullptr),
      m_descriptor(STDERR_FILENO) {}

void Log::write(LogLevel level, std::string_view text) noexcept {
  if (level > m_level) return;
  const auto index = static_cast<std::size_t>(level);
  try {
    std::string line(m_hasPriorities ? s_priorities[index] : "tsl-address-map: ");
    if (!m_hasPriorities) line.append(s_names[index]).append(": ");
    line.append(Tool::printable(text)).append("\n");
    m_descriptor.with([&line](int descriptor) { s_writeAll(descriptor, line); });
  } catch (const std::exception&) {
    // There is nobody left to report this to.
  }
}

}  // namespace Tessel::Serve
