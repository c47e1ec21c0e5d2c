// The progress of long work: a bar on a terminal, now and then a line elsewhere.
#ifndef TSL_TOOLS_TERMINAL_PROGRESS_H
#define TSL_TOOLS_TERMINAL_PROGRESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "terminal/Terminal.h"

namespace Tessel::Tool {

// What is reported.
struct ProgressState {
  std::string what;  // "writing"; fit to be shown.
  std::string unit;  // "rows"
  std::uint64_t done = 0;
  std::optional<std::uint64_t> total;
  std::chrono::milliseconds elapsed{0};
};

// The bar for a terminal of `columns`: never longer than fits before its last column. With less
// room the bar is left out first, then the counts; what remains is the percentage, or the count.
std::string progressBar(const ProgressState& state, std::size_t columns);

// "writing: 500000 of 1000000 rows"
std::string progressLine(const ProgressState& state);

// Shows the progress on standard error from a thread of its own, so also while the work waits for
// the server. On a terminal a bar appears after a second, is redrawn ten times a second and erased
// at the end; elsewhere a line is written every ten seconds. The work itself only counts, which
// costs next to nothing. One object at a time; all operations are for one thread.
class Progress {
 public:
  // When the first bar or line is shown, and the next ones.
  struct Timing {
    std::chrono::milliseconds first;
    std::chrono::milliseconds every;
  };

  // A `timing` other than the usual one is for tests.
  explicit Progress(std::optional<Timing> timing = std::nullopt);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Begins a part of the work, of which nothing is done: "writing", "rows". Without `total` it is
  // not known how much there is to do.
  void begin(const std::string& what, const std::string& unit,
             std::optional<std::uint64_t> total = std::nullopt);
  // The same for the lines of the file `path`, "-" being standard input; but nothing is shown while
  // a person types them at the terminal.
  void beginReading(const std::string& path);
  // The total is known now, and the work begins now.
  void setTotal(std::uint64_t total);
  void set(std::uint64_t done) { m_done.store(done, std::memory_order_relaxed); }
  void add(std::uint64_t more) { set(m_done.load(std::memory_order_relaxed) + more); }
  // For readers of tables: sets the total, and how much of it is done. The object must outlive it.
  [[nodiscard]] std::function<void(std::uint64_t done, std::uint64_t total)> counter();
  // True when a person is watching, so that it is worth finding out the total.
  static bool isWatched() { return isTerminal(Stream::Error); }
  // Shows nothing from now on.
  void end();
  // The same, when a bar would be shown and standard output is a pipe: its reader, a pager perhaps,
  // may write to the same terminal. For commands that answer step by step.
  void endForPager();

  // Erases the bar, and keeps it away while this object exists: what is written then is on a line
  // of its own. For any writing to a terminal, whether there is a Progress or not; may be nested.
  class Hidden {
   public:
    Hidden();
    ~Hidden() = default;
    Hidden(const Hidden&) = delete;
    Hidden& operator=(const Hidden&) = delete;

   private:
    std::unique_lock<std::recursive_mutex> m_lock;
  };

  // Ends the current Progress, if any: output without line ends follows.
  static void endCurrent();

 private:
  static constexpr std::uint64_t s_unknown = UINT64_MAX;

  void run();
  // False when nothing can be shown any more.
  static bool show(const ProgressState& state);
  // The caller holds m_mutex.
  [[nodiscard]] ProgressState state() const;

  Timing m_timing;
  std::atomic<std::uint64_t> m_done{0};
  std::atomic<std::uint64_t> m_total{s_unknown};
  std::mutex m_mutex;  // Guards the four fields below.
  std::string m_what;
  std::string m_unit;
  std::chrono::steady_clock::time_point m_start;
  bool m_isEnding = false;
  std::condition_variable m_ending;
  std::thread m_thread;
};

}  // namespace Tessel::Tool

#endif
