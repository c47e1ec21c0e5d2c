// How far a long piece of work is.
#include "terminal/Progress.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <string_view>

#include "failure/Failure.h"
#include "terminal/Interrupt.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr Progress::Timing s_onTerminal{milliseconds(1000), milliseconds(100)};
constexpr Progress::Timing s_elsewhere{milliseconds(10000), milliseconds(10000)};

// Of the bar alone, without its ends.
constexpr std::size_t s_narrowest = 10;
constexpr std::size_t s_widest = 30;

constexpr std::string_view s_eraseLine = "\033[K";
// A terminal that was made narrower has wrapped the bar: what is below the cursor is ours as well.
constexpr std::string_view s_eraseBelow = "\033[J";

// Held while anything is written to the terminal.
std::recursive_mutex s_terminal;
Progress* s_current = nullptr;

// For the signal handler: a bar stands on the terminal; one is just being written; no other may be.
std::atomic<bool> s_isDrawn{false};
std::atomic<bool> s_isDrawing{false};
std::atomic<bool> s_isInterrupted{false};
// Columns that the terminal had when the bar was drawn.
std::atomic<std::size_t> s_drawnWidth{0};

bool s_write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string_view s_eraser() {
  return terminalWidth() < s_drawnWidth ? s_eraseBelow : s_eraseLine;
}

// Async-signal-safe.
void s_erase() {
  if (s_write("\r")) static_cast<void>(s_write(s_eraser()));
}

// In a signal handler, so without any lock: the thread that draws is waited for, but not for long,
// as the terminal may have been stopped.
void s_eraseOnInterrupt() {
  s_isInterrupted = true;
  constexpr int s_patience = 200;  // Milliseconds.
  for (int i = 0; i < s_patience && s_isDrawing; ++i) poll(nullptr, 0, 1);
  if (s_isDrawn) s_erase();
}

// The caller holds s_terminal.
void s_eraseBar() {
  if (s_isDrawn.exchange(false)) s_erase();
}

// False when nothing can be shown any more. The caller holds s_terminal.
bool s_draw(const ProgressState& state) {
  s_isDrawing = true;
  bool isGood = !s_isInterrupted;
  if (isGood) {
    s_isDrawn = true;
    // The cursor goes back, so that what is typed meanwhile does not wrap the line.
    const std::string_view eraser = s_eraser();
    s_drawnWidth = terminalWidth();
    isGood = s_write(
        std::string("\r").append(progressBar(state, s_drawnWidth)).append(eraser).append("\r"));
  }
  s_isDrawing = false;
  return isGood;
}

std::string s_time(std::uint64_t seconds) {
  const auto twoDigits = [](std::uint64_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
  };
  const std::uint64_t hours = seconds / 3600;
  const std::uint64_t minutes = seconds / 60 % 60;
  return (hours == 0 ? std::to_string(minutes) : std::to_string(hours) + ":" + twoDigits(minutes)) +
         ":" + twoDigits(seconds % 60);
}

double s_perSecond(const ProgressState& state) {
  const double seconds = std::chrono::duration<double>(state.elapsed).count();
  return seconds > 0 ? static_cast<double>(state.done) / seconds : 0;
}

std::string s_rate(const ProgressState& state) {
  return std::to_string(static_cast<std::uint64_t>(s_perSecond(state)));
}

// ", 0:12 left", or nothing while that is unknown.
std::string s_left(const ProgressState& state) {
  constexpr double s_longest = 100.0 * 3600;
  const double rate = s_perSecond(state);
  if (rate <= 0 || *state.total < state.done) return "";
  const double seconds = static_cast<double>(*state.total - state.done) / rate;
  if (seconds > s_longest) return "";
  return ", " + s_time(static_cast<std::uint64_t>(seconds)) + " left";
}

std::string s_counts(const ProgressState& state) {
  std::string text = std::to_string(state.done);
  if (state.total) text += " of " + std::to_string(*state.total);
  return text + " " + state.unit;
}

// Never more than 1: the table may have grown since.
double s_part(const ProgressState& state) {
  if (*state.total == 0) return 1;
  return std::min(1.0, static_cast<double>(state.done) / static_cast<double>(*state.total));
}

// The first of `texts` that is no longer than `most`; nothing when all are.
std::string s_fitting(std::initializer_list<std::string> texts, std::size_t most) {
  const auto* const found = std::find_if(
      texts.begin(), texts.end(), [most](const std::string& text) { return text.size() <= most; });
  return found == texts.end() ? "" : *found;
}

std::string s_barOfUnknown(const ProgressState& state, std::size_t most) {
  const std::string time = s_time(static_cast<std::uint64_t>(state.elapsed.count()) / 1000);
  if (state.done == 0) return s_fitting({state.what + ": " + time, time}, most);
  const std::string counted = s_counts(state);
  const std::string rated = counted + ", " + s_rate(state) + "/s";
  return s_fitting({state.what + ": " + rated, rated, counted}, most);
}

}  // namespace

std::string progressBar(const ProgressState& state, std::size_t columns) {
  // A line that fills its last column may be wrapped.
  const std::size_t most = columns == 0 ? 0 : columns - 1;
  if (!state.total) return s_barOfUnknown(state, most);
  const double part = s_part(state);
  const std::string percent = std::to_string(static_cast<int>(part * 100)) + "%";
  const std::string left = s_left(state);
  const std::string behind = std::string(5 - percent.size(), ' ') + percent + "  " +
                             s_counts(state) + ", " + s_rate(state) + "/s" + left;
  const std::size_t frame = state.what.size() + std::string_view(" []").size() + behind.size();
  if (frame + s_narrowest <= most) {
    const std::size_t width = std::min(s_widest, most - frame);
    const auto done = static_cast<std::size_t>(part * static_cast<double>(width));
    std::string bar = state.what + " [";
    return bar.append(done, '=').append(width - done, ' ') + "]" + behind;
  }
  const std::string rate = ", " + s_rate(state) + " " + state.unit + "/s";
  const std::string named = state.what + ": " + percent;
  return s_fitting({named + ", " + s_counts(state) + ", " + s_rate(state) + "/s" + left,
                    named + rate + left, named + rate, percent + rate, percent},
                   most);
}

std::string progressLine(const ProgressState& state) {
  return state.what + ": " + s_counts(state);
}

Progress::Progress(std::optional<Timing> timing)
    : m_timing(timing ? *timing : (isWatched() ? s_onTerminal : s_elsewhere)),
      m_start(Clock::now()) {
  // Where nothing can be written there is nothing to report.
  const int flags = fcntl(STDERR_FILENO, F_GETFL);
  if (flags == -1 || (flags & O_ACCMODE) == O_RDONLY) return;
  if (isWatched()) tidyUpOnInterrupt(&s_eraseOnInterrupt);
  s_current = this;
  // Signals are for the thread that works.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  m_thread = std::thread(&Progress::run, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Progress::~Progress() {
  end();
}

void Progress::begin(const std::string& what, const std::string& unit,
                     std::optional<std::uint64_t> total) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_what = printable(what);
  m_unit = unit;
  m_start = Clock::now();
  m_done = 0;
  m_total = total.value_or(s_unknown);
}

void Progress::beginReading(const std::string& path) {
  if (path == "-" && isatty(STDIN_FILENO) == 1) return;
  begin("reading", "lines");
}

void Progress::setTotal(std::uint64_t total) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_total = total;
  m_start = Clock::now();
}

std::function<void(std::uint64_t, std::uint64_t)> Progress::counter() {
  return [this](std::uint64_t done, std::uint64_t total) {
    if (done == 0) {
      setTotal(total);
    } else {
      set(done);
    }
  };
}

ProgressState Progress::state() const {
  ProgressState state{m_what, m_unit, m_done, std::nullopt, {}};
  if (m_total != s_unknown) state.total = m_total;
  state.elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - m_start);
  return state;
}

void Progress::run() {
  std::unique_lock<std::mutex> lock(m_mutex);
  Clock::time_point next = m_start + m_timing.first;
  while (!m_ending.wait_until(lock, next, [this] { return m_isEnding; })) {
    const ProgressState now = state();
    lock.unlock();
    if (!show(now)) return;
    next = Clock::now() + m_timing.every;
    lock.lock();
  }
}

bool Progress::show(const ProgressState& state) {
  if (state.what.empty()) return true;
  if (!isWatched()) {
    say(progressLine(state));
    return true;
  }
  const std::lock_guard<std::recursive_mutex> lock(s_terminal);
  return s_draw(state);
}

void Progress::end() {
  if (!m_thread.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isEnding = true;
  }
  m_ending.notify_all();
  m_thread.join();
  s_current = nullptr;
  const std::lock_guard<std::recursive_mutex> lock(s_terminal);
  s_eraseBar();
}

void Progress::endForPager() {
  struct stat output {};
  if (!isWatched() || fstat(STDOUT_FILENO, &output) != 0) return;
  if (S_ISFIFO(output.st_mode) || S_ISSOCK(output.st_mode)) end();
}

void Progress::endCurrent() {
  if (s_current != nullptr) s_current->end();
}

Progress::Hidden::Hidden() : m_lock(s_terminal) {
  s_eraseBar();
}

}  // namespace Tessel::Tool
