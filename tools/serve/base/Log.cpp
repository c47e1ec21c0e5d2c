// The log of the lookup service.
#include "serve/base/Log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <utility>

#include "base/sizes.h"
#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

// Priorities of syslog(3), in the order of the levels.
constexpr std::string_view s_priorities[] = {"<3>", "<4>", "<6>", "<7>"};
constexpr std::string_view s_names[] = {"error", "warning", "info", "debug"};

constexpr std::size_t s_mostLines = 1000;
// Bytes of a line. A pipe takes as many as one (PIPE_BUF, see pipe(7)), so that a write to one that
// has room does not wait.
constexpr std::size_t s_longestLine = 4_KiB;
// How many messages are remembered.
constexpr std::size_t s_mostRecent = 1000;
// How long the end waits for someone to read.
constexpr std::chrono::milliseconds s_readerPatience = 500ms;

// True when standard error takes a line within `patience`.
bool s_hasRoom(std::chrono::milliseconds patience) {
  pollfd output{STDERR_FILENO, POLLOUT, 0};
  return poll(&output, 1, static_cast<int>(patience.count())) == 1;
}

}  // namespace

Log::Log(LogLevel level, std::chrono::milliseconds quiet)
    : m_level(level),
      m_quiet(quiet),
      // NOLINTNEXTLINE(concurrency-mt-unsafe): the service does not change its environment
      m_hasPriorities(getenv("JOURNAL_STREAM") != nullptr),
      m_thread([this] { run(); }) {}

Log::~Log() {
  flush();
  m_isEnding = true;
  m_state.with([](State& state) { state.isEnding = true; });
  m_wake.notify_all();
  m_thread.join();
}

void Log::flush() {
  m_state.waitFor(m_wake, s_readerPatience,
                  [](const State& state) { return state.lines.empty() && !state.isWriting; });
}

void Log::write(LogLevel level, std::string_view text) noexcept {
  if (level > m_level) return;
  const auto index = static_cast<std::size_t>(level);
  try {
    m_state.with([&](State& state) {
      const bool isProblem = level <= LogLevel::Warning;
      const std::string shown = isProblem ? again(state, text) : std::string(text);
      if (shown.empty() && !text.empty()) return;
      if (state.lines.size() >= s_mostLines) {
        ++m_lost;
        return;
      }
      std::string line(m_hasPriorities ? s_priorities[index] : "tsl-address-map: ");
      if (!m_hasPriorities) line.append(s_names[index]).append(": ");
      line.append(Tool::printable(shown));
      line.resize(std::min(line.size(), s_longestLine - 1));
      state.lines.push_back(std::move(line.append("\n")));
    });
    m_wake.notify_all();
  } catch (const std::exception&) {
    // There is nobody left to report this to.
    ++m_lost;
  }
}

std::string Log::again(State& state, std::string_view text) const {
  const Clock::time_point now = Clock::now();
  const auto known = state.recent.find(text);
  if (known == state.recent.end()) {
    std::erase_if(state.recent, [this, now](const auto& entry) {
      return now - entry.second.written >= m_quiet && entry.second.again == 0;
    });
    // With more than that nothing is repeated, but different.
    if (state.recent.size() < s_mostRecent) state.recent.emplace(text, Recent{now});
    return std::string(text);
  }
  Recent& recent = known->second;
  if (now - recent.written < m_quiet) {
    ++recent.again;
    return {};
  }
  recent.written = now;
  const std::uint64_t times = std::exchange(recent.again, 0);
  return std::string(text).append(
      times == 0 ? "" : " (" + std::to_string(times) + " times more since the last such line)");
}

void Log::run() {
  // Whoever closes the other end of a pipe must not end the process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  const auto isWanted = [](const State& state) { return state.isEnding || !state.lines.empty(); };
  while (!m_isEnding) {
    m_state.waitFor(m_wake, 1h, isWanted);
    const std::string line = m_state.with([](State& state) {
      state.isWriting = !state.lines.empty();
      if (!state.isWriting) return std::string();
      std::string next = std::move(state.lines.front());
      state.lines.pop_front();
      return next;
    });
    if (!line.empty()) writeLine(line);
    m_state.with([](State& state) { state.isWriting = false; });
    m_wake.notify_all();
  }
}

void Log::writeLine(const std::string& line) {
  while (!s_hasRoom(100ms)) {
    if (m_isEnding) return;
  }
  std::string_view left = line;
  while (!left.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, left.data(), left.size());
    if (written == -1 && errno == EINTR) continue;
    if (written == -1) {
      ++m_lost;
      return;
    }
    left.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace Tessel::Serve
