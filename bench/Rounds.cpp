// Comparisons in rounds: the clocks, the threads, the median and its confidence interval.
#include "Rounds.h"

#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <random>
#include <thread>
#include <utility>

namespace Tessel::Bench {

namespace {

// Quantile of the normal distribution for an interval of 99 %. It is looked at again and again
// while rounds are added, for which 95 % would be too little.
constexpr double s_normal = 2.576;
// An interval of this part of its median is narrow.
constexpr double s_narrow = 0.02;
// The fewest rounds, and the same where a round takes this many seconds.
constexpr std::size_t s_rounds = 30;
constexpr std::size_t s_costlyRounds = 8;
constexpr double s_costly = 0.1;
// Seconds after which a decided comparison may have a wide interval, and after which one that is
// not decided stays so.
constexpr double s_longestWide = 8;
constexpr double s_longestUndecided = 20;
// The part of the time of the slowest thread in which all of them must be at work.
constexpr double s_together = 0.8;
// The part of a slice in which what is measured must have the core, and the seconds of a slice that
// would be disturbed however often it was repeated.
constexpr double s_alone = 0.9;
constexpr double s_long = 0.05;

bool s_isQuick = false;

struct Verdict {
  std::string name;
  std::string unit;
  double limit;
  double median;
  double low;
  double high;
  std::size_t rounds;

  [[nodiscard]] bool isOver() const { return low > limit; }
  [[nodiscard]] bool isUndecided() const { return low <= limit && limit < high; }
  [[nodiscard]] bool isNarrow() const { return high - low <= s_narrow * median; }
};

std::vector<Verdict>& s_verdicts() {
  static std::vector<Verdict> s_all;
  return s_all;
}

std::vector<pid_t>& s_watched() {
  static std::vector<pid_t> s_all;
  return s_all;
}

double s_seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double s_seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

void s_pinToCore(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(core), &cores);
  // Fails on a machine with fewer cores, where the threads share what there is.
  sched_setaffinity(0, sizeof(cores), &cores);
}

double s_median(std::vector<double>& values) {
  std::sort(values.begin(), values.end());
  return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

// The median of `values`, with the interval that order statistics give for it.
Verdict s_judge(const Comparison& comparison, std::vector<double> values) {
  const double median = s_median(values);
  const auto count = static_cast<double>(values.size());
  const double place = (count - 1 - s_normal * std::sqrt(count)) / 2;
  const auto outside = static_cast<std::size_t>(std::max(0.0, place));
  return {comparison.name,  comparison.kind == Kind::Ratio ? "times" : "ns",
          comparison.limit, median,
          values[outside],  values[values.size() - 1 - outside],
          values.size()};
}

// Takes the rounds of one comparison.
class Rounds {
 public:
  Rounds(const Comparison& comparison, const std::vector<Sides>& sides)
      : m_comparison(comparison), m_sides(sides), m_operations(comparison.operations) {
    if (s_isQuick) m_operations = 1;
    if (m_operations == 0) m_operations = fillingASlice();
  }

  // Until there is a verdict.
  Verdict take() {
    const double start = now(Clock::Wall);
    std::size_t wanted = s_rounds;
    while (true) {
      takeOne();
      if (s_isQuick) return s_judge(m_comparison, m_values);
      const double taken = now(Clock::Wall) - start;
      const auto rounds = static_cast<double>(m_values.size());
      if (taken / rounds > s_costly) wanted = std::min(wanted, s_costlyRounds);
      if (m_values.size() < wanted) continue;
      Verdict verdict = s_judge(m_comparison, m_values);
      const double longest = verdict.isUndecided() ? s_longestUndecided : s_longestWide;
      if (taken > longest || (verdict.isNarrow() && !verdict.isUndecided())) return verdict;
      // Not at every round: each look is one more chance to be wrong.
      wanted = m_values.size() + m_values.size() / 4;
    }
  }

  double medianOfOurs() { return s_median(m_ours); }

 private:
  // How many operations fill a slice, whichever side does them. Warms all of them up, too. The
  // quickest of three tries counts, as another program may have been at work in the others.
  [[nodiscard]] std::size_t fillingASlice() const {
    for (std::size_t count = 1;; count *= 2) {
      double quickest = s_noLimit;
      for (int i = 0; i < 3; ++i) {
        for (const auto& [ours, bare] : m_sides) {
          quickest = std::min(quickest, ours(count));
          if (bare) quickest = std::min(quickest, bare(count));
        }
      }
      if (quickest * static_cast<double>(count) >= m_comparison.slice) return count;
    }
  }

  void takeOne() {
    const auto& [ours, bare] = m_sides[m_values.size() % m_sides.size()];
    const bool isBareFirst = m_random() % 2 == 0;
    double bareTime = 0;
    if (bare && isBareFirst) bareTime = bare(m_operations);
    const double oursTime = ours(m_operations);
    if (bare && !isBareFirst) bareTime = bare(m_operations);
    m_ours.push_back(oursTime);
    m_values.push_back(m_comparison.kind == Kind::Ratio
                           ? oursTime / bareTime
                           : (oursTime - bareTime) * 1e9 / m_comparison.per);
  }

  const Comparison& m_comparison;
  const std::vector<Sides>& m_sides;
  std::size_t m_operations;
  std::minstd_rand m_random;  // NOLINT(cert-msc51-cpp): the order need not be secret
  std::vector<double> m_values;
  std::vector<double> m_ours;
};

}  // namespace

double now(Clock clock) {
  if (clock == Clock::Wall) return s_seconds(CLOCK_MONOTONIC);
  double seconds = s_seconds(CLOCK_THREAD_CPUTIME_ID);
  if (clock == Clock::Own) return seconds;
  rusage children{};
  getrusage(RUSAGE_CHILDREN, &children);
  seconds += s_seconds(children.ru_utime) + s_seconds(children.ru_stime);
  for (const pid_t process : s_watched()) {
    clockid_t id = 0;
    if (clock_getcpuclockid(process, &id) == 0) seconds += s_seconds(id);
  }
  return seconds;
}

double measure(Clock clock, const std::function<void()>& slice) {
  for (int tries = 1;; ++tries) {
    const double begin = now(Clock::Wall);
    const double start = now(clock);
    slice();
    const double taken = now(clock) - start;
    const double wall = now(Clock::Wall) - begin;
    const bool isRight = clock != Clock::Everyone || wall > s_long || taken >= s_alone * wall;
    if (isRight || tries == s_mostTries) return taken;
  }
}

void watch(pid_t process) {
  s_watched().push_back(process);
}

void unwatch(pid_t process) {
  std::erase(s_watched(), process);
}

struct Threads::Shared {
  explicit Shared(int count) : begin(count), end(count), spans(static_cast<std::size_t>(count)) {}

  // One slice in one thread. False: there is none any more.
  bool take(int thread) {
    begin.arrive_and_wait();
    if (work == nullptr) return false;
    // A thread that slept at the barrier is late: the others wait for it here, awake.
    ++ready;
    while (ready.load() < static_cast<int>(spans.size())) {
    }
    auto& [from, to] = spans[static_cast<std::size_t>(thread)];
    from = now(Clock::Wall);
    (*work)(thread);
    to = now(Clock::Wall);
    end.arrive_and_wait();
    return true;
  }

  // All of them were at work at the same time.
  [[nodiscard]] bool wereTogether() const {
    double lastStart = 0;
    double firstEnd = s_noLimit;
    double longest = 0;
    for (const auto& [from, to] : spans) {
      lastStart = std::max(lastStart, from);
      firstEnd = std::min(firstEnd, to);
      longest = std::max(longest, to - from);
    }
    return firstEnd - lastStart >= s_together * longest;
  }

  std::barrier<> begin;
  std::barrier<> end;
  std::atomic<int> ready{0};
  const std::function<void(int)>* work = nullptr;  // Null: end. Written between the slices.
  std::vector<std::pair<double, double>> spans;    // When each thread was at work.
  std::vector<std::thread> threads;
  cpu_set_t coresBefore{};
};

Threads::Threads(int count) : m_shared(std::make_unique<Shared>(count)) {
  sched_getaffinity(0, sizeof(m_shared->coresBefore), &m_shared->coresBefore);
  s_pinToCore(0);
  for (int thread = 1; thread < count; ++thread) {
    m_shared->threads.emplace_back([shared = m_shared.get(), thread] {
      s_pinToCore(thread);
      while (shared->take(thread)) {
      }
    });
  }
}

Threads::~Threads() {
  m_shared->work = nullptr;
  m_shared->take(0);
  for (std::thread& thread : m_shared->threads) thread.join();
  sched_setaffinity(0, sizeof(m_shared->coresBefore), &m_shared->coresBefore);
}

double Threads::run(const std::function<void(int)>& work) {
  for (int tries = 1;; ++tries) {
    m_shared->work = &work;
    m_shared->ready = 0;
    m_shared->take(0);
    if (tries == s_mostTries || m_shared->wereTogether()) break;
  }
  double sum = 0;
  for (const auto& [from, to] : m_shared->spans) sum += to - from;
  return sum / static_cast<double>(m_shared->spans.size());
}

void beQuick() {
  s_isQuick = true;
}

void compare(benchmark::State& state, const Comparison& comparison,
             const std::vector<Sides>& sides) {
  for (auto _ : state) {
    Rounds rounds(comparison, sides);
    s_verdicts().push_back(rounds.take());
    state.SetIterationTime(rounds.medianOfOurs());
  }
}

void measured(const std::string& name, double value, const std::string& unit, double limit) {
  s_verdicts().push_back({name, unit, limit, value, value, value, 1});
}

int printVerdicts() {
  if (s_isQuick) return 0;
  bool isOver = false;
  bool isUndecided = false;
  std::printf("\n%-62s %10s %8s %23s %6s %8s\n", "Comparison", "median", "", "99 % interval",
              "rounds", "limit");
  for (const Verdict& verdict : s_verdicts()) {
    std::printf("%-62s %10.3f %-8s %10.3f - %10.3f %6zu", verdict.name.c_str(), verdict.median,
                verdict.unit.c_str(), verdict.low, verdict.high, verdict.rounds);
    if (verdict.limit != s_noLimit) {
      const char* said = "ok";
      if (verdict.isOver()) said = "OVER THE LIMIT";
      if (verdict.isUndecided()) said = "undecided";
      std::printf(" %8.2f  %s", verdict.limit, said);
    }
    std::printf("\n");
    isOver = isOver || verdict.isOver();
    isUndecided = isUndecided || verdict.isUndecided();
  }
  if (isOver) return 1;
  return isUndecided ? 2 : 0;
}

}  // namespace Tessel::Bench
