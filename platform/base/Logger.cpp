// Logger over syslog(3).
#include "base/Logger.h"

#include <syslog.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace Tessel {

namespace {

// Longest message text in bytes: longer ones are cut, so that one bad row cannot flood the log.
constexpr std::size_t s_maxText = 1000;

}  // namespace

Logger& Logger::instance(bool reopen) {
  // Never destroyed: objects with static storage may log while the process ends.
  static Logger& s_logger = *new Logger;
  if (reopen) s_logger.readEnvironment();
  return s_logger;
}

Logger::Logger() {
  readEnvironment();
}

void Logger::readEnvironment() {
  // getenv is safe here as long as the program does not change its environment at the same time.
  const char* target = std::getenv("TSL_LOG");  // NOLINT(concurrency-mt-unsafe): see above
  const bool toStandardError = target != nullptr && std::string_view(target) == "stderr";
  m_state.with([=](State& state) { state.toStandardError = toStandardError; });
}

void Logger::operator()(unsigned int code, int number, const char* format, ...) noexcept {
  std::array<char, s_maxText + 1> text{};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  if (length < 0) return;
  for (char& c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte != 0 && (byte < 0x20 || byte == 0x7f)) c = '?';
  }

  try {
    m_state.with([&](State& state) {
      if (!state.captures.empty()) {
        state.captures.back().push_back({code, number, text.data()});
      } else if (state.toStandardError) {
        std::fprintf(stderr, "tsl[%#x] %d: %s\n", code, number, text.data());
      } else {
        syslog(LOG_MAIL | LOG_WARNING, "tsl[%#x] %d: %s", code, number, text.data());
      }
    });
  } catch (...) {  // No memory for the captured copy: a lost log line must not end the caller.
  }
}

Logger::Capture::Capture()
    : m_messages(Logger::instance(false).m_state.with(
          [](State& state) { return state.captures.emplace(state.captures.end()); })) {}

Logger::Capture::~Capture() {
  Logger::instance(false).m_state.with([this](State& state) { state.captures.erase(m_messages); });
}

std::vector<Logger::Message> Logger::Capture::take() {
  return Logger::instance(false).m_state.with(
      [this](State& /*state*/) { return std::exchange(*m_messages, {}); });
}

}  // namespace Tessel
