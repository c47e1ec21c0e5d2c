// Keeps the image of the configuration up to date.
#include "serve/image/ConfigurationWatch.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/sizes.h"
#include "serve/base/AccessRights.h"
#include "serve/image/ConfigurationHelper.h"
#include "tables/Configuration.h"

namespace Tessel::Serve {

namespace {

using std::chrono::milliseconds;

// The pause before a new helper: first, and longest.
constexpr milliseconds s_firstPause = 100ms;
constexpr milliseconds s_longestPause = 10s;
// How often a waiting thread looks whether it is to stop.
constexpr milliseconds s_lookStep = 20ms;

// Thrown instead of an answer when the watch, or the helper, ends.
struct Stopped {};
struct Ended {};

// True when there are files of a configuration, also when they are out of reach.
bool s_isThere(const std::filesystem::path& directory) {
  const auto isThere = [&](const char* file) {
    std::error_code error;
    return std::filesystem::exists(directory / file, error) || error;
  };
  return isThere("data.mdb") || isThere("lock.mdb");
}

std::string s_ended(int status) {
  if (WIFEXITED(status) && WEXITSTATUS(status) == s_damagedStatus) {
    return "data.mdb or lock.mdb is damaged, or was truncated or overwritten while it was in use;"
           " restore the directory from a copy that mdb_copy made, or load the configuration again";
  }
  if (WIFSIGNALED(status)) {
    return std::string("the process that reads it was ended by signal ") +
           std::to_string(WTERMSIG(status));
  }
  return "the process that reads it ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

ConfigurationWatch::ConfigurationWatch(const Settings& settings, Configuration& configuration,
                                       Log& log, Helper helper)
    : m_settings(settings),
      m_configuration(configuration),
      m_log(log),
      m_command(std::move(helper)),
      m_directory(Tool::configurationDirectory()),
      m_name("the configuration of domains and mail users in " + m_directory),
      m_frames(s_longestCopy),
      m_pause(s_firstPause) {
  if (s_isThere(m_directory)) m_configuration.setNeeded();
  m_thread = std::thread([this] { run(); });
}

ConfigurationWatch::~ConfigurationWatch() {
  m_state.with([](State& state) { state.isStopping = true; });
  m_wake.notify_all();
  m_thread.join();
}

void ConfigurationWatch::reload() {
  m_state.with([](State& state) { state.isReloading = true; });
  m_wake.notify_all();
}

bool ConfigurationWatch::isStopping() {
  return m_state.with([](const State& state) { return state.isStopping; });
}

void ConfigurationWatch::run() {
  while (!isStopping()) {
    if (m_state.with([](State& state) { return std::exchange(state.isReloading, false); })) {
      m_helper.reset();
    }
    const milliseconds pause = look();
    m_hasLooked = true;
    m_state.waitFor(m_wake, pause,
                    [](const State& state) { return state.isStopping || state.isReloading; });
  }
}

milliseconds ConfigurationWatch::look() {
  const Clock::time_point start = Clock::now();
  if (s_isThere(m_directory)) m_configuration.setNeeded();
  try {
    ask(start);
    m_pause = s_firstPause;
    return std::clamp(m_settings.refresh / 4, 10ms, 1000ms);
  } catch (const Stopped&) {
    return 0ms;
  } catch (const Ended&) {
    return endHelper(s_ended(m_helper->end()));
  } catch (const std::exception& exception) {
    return endHelper(exception.what());
  }
}

// Looks whether the configuration has changed.
void ConfigurationWatch::ask(Clock::time_point start) {
  if (m_helper == nullptr) {
    m_helper = std::make_unique<HelperProcess>(m_command.command);
    m_pid = m_helper->pid();
    m_frames = FrameReader(s_longestCopy);
    m_isKnown = false;
  }
  const char any = '?';
  if (send(m_helper->descriptor(), &any, 1, MSG_NOSIGNAL | MSG_DONTWAIT) != 1) {
    throw Ended();
  }
  take(answer(), start);
}

Frame ConfigurationWatch::answer() {
  Clock::time_point limit = Clock::now() + m_command.patience;
  while (true) {
    if (auto frame = m_frames.next()) {
      if (frame->kind != static_cast<char>(HelperFrame::Reading)) return *std::move(frame);
      limit = Clock::now() + m_command.patience;
      continue;
    }
    receive(limit);
  }
}

// Waits for bytes of the helper, until `limit`.
void ConfigurationWatch::receive(Clock::time_point limit) {
  pollfd socket{m_helper->descriptor(), POLLIN, 0};
  while (poll(&socket, 1, static_cast<int>(s_lookStep.count())) == 0) {
    if (isStopping()) throw Stopped();
    if (Clock::now() < limit) continue;
    throw std::runtime_error("the process that reads it has not answered for " +
                             std::to_string(m_command.patience.count()) + " ms");
  }
  std::array<char, 64_KiB> bytes;
  const ssize_t size = recv(m_helper->descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size > 0) return m_frames.add({bytes.data(), static_cast<std::size_t>(size)});
  if (size == 0 || errno != EAGAIN) throw Ended();
}

void ConfigurationWatch::take(const Frame& frame, Clock::time_point start) {
  switch (static_cast<HelperFrame>(frame.kind)) {
    case HelperFrame::Same:
      if (!m_isKnown) break;
      m_configuration.confirm(start);
      return available();
    case HelperFrame::Copy: {
      const auto image = std::make_shared<const ConfigurationImage>(frame.text);
      const auto tell = m_configuration.image() == nullptr ? &Log::info : &Log::debug;
      (m_log.*tell)("the configuration: " + std::to_string(image->domains()) + " domains and " +
                    std::to_string(image->users()) + " mail users read");
      m_configuration.publish(image, start);
      m_isKnown = true;
      return available();
    }
    case HelperFrame::Failed:
      return fail(frame.text);
    case HelperFrame::Reading:
      break;
  }
  throw std::runtime_error("the process that reads it sent what is no answer");
}

void ConfigurationWatch::available() {
  if (!m_failure.empty()) m_log.warning(m_name + " can be read again");
  m_failure.clear();
}

// Reports that the configuration cannot be read, if anybody needs it.
void ConfigurationWatch::fail(const std::string& why) {
  if (!m_configuration.isNeeded()) return;
  const std::string right = missingRight(m_directory);
  const std::string& reason = right.empty() ? why : right;
  if (reason == m_failure) return;
  m_failure = reason;
  const bool isKnown = m_configuration.age(Clock::now()).has_value();
  m_log.error(m_name + " cannot be read: " + reason + "; " +
              (isKnown ? "what was read last still answers" : "what needs it is answered TEMP"));
}

// Ends the helper, which failed because of `why`. The pause before the next one.
milliseconds ConfigurationWatch::endHelper(const std::string& why) {
  fail(why);
  m_helper.reset();
  m_pid = 0;
  return std::exchange(m_pause, std::min(2 * m_pause, s_longestPause));
}

}  // namespace Tessel::Serve
