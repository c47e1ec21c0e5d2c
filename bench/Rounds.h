// Comparisons in rounds: ours and the bare thing in turn, a few milliseconds each, so that both
// meet the same machine. The result is the median of the rounds' ratios, with its confidence
// interval.
#ifndef TSL_BENCH_ROUNDS_H
#define TSL_BENCH_ROUNDS_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace Tessel::Bench {

// How a round is read.
enum class Kind {
  Ratio,         // time of ours divided by the time of the bare thing
  Nanoseconds,   // time of ours divided by `per`, in ns; without a bare counterpart
  ExtraPerItem,  // (time of ours minus time of the bare thing) divided by `per`, in ns
};

constexpr double s_noLimit = std::numeric_limits<double>::infinity();

struct Comparison {
  std::string name;
  double limit = s_noLimit;  // The highest value that passes.
  Kind kind = Kind::Ratio;
  double per = 1;
  std::size_t operations = 0;  // Of one side in a round. 0: as many as fill a slice.
  double slice = 0.002;        // Seconds of one side in a round, at least.
};

// One side of a comparison: does its operation `count` times and returns the seconds that one took.
using Side = std::function<double(std::size_t count)>;

struct Sides {
  Side ours;
  Side bare;  // Empty for Kind::Nanoseconds.
};

// The clock of a side. Processor time does not count the work of other programs.
enum class Clock {
  Wall,      // For threads that wait for each other.
  Own,       // Processor time of the calling thread.
  Everyone,  // The same, and that of its children that ended and of the watched processes.
};

// Seconds on `clock` since some point in time.
double now(Clock clock);

// Counts the processor time of a process for Clock::Everyone from here on.
void watch(pid_t process);
void unwatch(pid_t process);

// A slice that other programs disturbed is measured again, but not more often than this.
constexpr int s_mostTries = 20;

// Does `slice` and returns the seconds that it took on `clock`. A short slice on Clock::Everyone is
// repeated when other programs had the core for a tenth of it or more: they leave the caches cold.
double measure(Clock clock, const std::function<void()>& slice);

// The side that calls `operation` with 0, 1, 2 and so on.
template <class Operation>
Side timed(Clock clock, Operation operation) {
  return [clock, operation, next = std::size_t{0}](std::size_t count) mutable {
    const auto slice = [&] {
      for (const std::size_t end = next + count; next < end; ++next) operation(next);
    };
    return measure(clock, slice) / static_cast<double>(count);
  };
}

// Threads that live as long as the object, each on a core of its own, and work at the same time.
// The caller's thread is one of them.
class Threads {
 public:
  explicit Threads(int count);
  ~Threads();
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  // Calls `work` with the number of the thread in each of them, all at the same time, and returns
  // the mean of the seconds that it took in each. Repeats it, a few times at most, when some of
  // them worked alone because another program kept the others from their core.
  double run(const std::function<void(int thread)>& work);

  // The side that does `operation`, as `timed` does, in each of the threads, which work on numbers
  // that are far apart. The object must outlive the side.
  template <class Operation>
  Side timed(Operation operation) {
    return [this, operation, next = std::size_t{0}](std::size_t count) mutable {
      const double seconds = run([&](int thread) {
        const std::size_t first = next + static_cast<std::size_t>(thread) * s_apart;
        for (std::size_t i = first; i < first + count; ++i) operation(i);
      });
      next += count;
      return seconds / static_cast<double>(count);
    };
  }

 private:
  static constexpr std::size_t s_apart = 101;

  struct Shared;
  std::unique_ptr<Shared> m_shared;
};

// Limit of a hit of a cache.
constexpr double s_mostOfHit = 1.0;
// A slice of several threads: short, and so seldom disturbed.
constexpr double s_sliceOfThreads = 0.0001;

// Throws std::runtime_error unless `isRight`: what is measured did not do its work.
inline void require(bool isRight) {
  if (!isRight) throw std::runtime_error("a measured operation went wrong");
}

// Takes rounds of ours and the bare thing, in random order within each and with each of `sides` in
// turn, until the limit is decided and the interval is narrow, or until the time is up. Reports the
// time of one operation of ours to `state`.
void compare(benchmark::State& state, const Comparison& comparison,
             const std::vector<Sides>& sides);

inline void compare(benchmark::State& state, const Comparison& comparison, const Side& ours,
                    const Side& bare) {
  compare(state, comparison, {{ours, bare}});
}

// How fast a hit is depends on how its cache lies in memory: hits are compared over this many
// caches of ours and bare ones, made one after another.
constexpr std::size_t s_caches = 8;

// Compares hits of caches by as many threads as the argument of `state` says. `makeOurs` and
// `makeBare` return an operation on a cache of its own.
template <class MakeOurs, class MakeBare>
void compareHits(benchmark::State& state, const std::string& name, MakeOurs makeOurs,
                 MakeBare makeBare) {
  const auto count = static_cast<int>(state.range(0));
  Comparison comparison{name + (count == 1 ? ", 1 thread" : ", 2 threads"), s_mostOfHit};
  Threads threads(count);
  std::vector<Sides> sides;
  while (sides.size() < s_caches) {
    if (count == 1) {
      sides.push_back({timed(Clock::Own, makeOurs()), timed(Clock::Own, makeBare())});
    } else {
      sides.push_back({threads.timed(makeOurs()), threads.timed(makeBare())});
    }
  }
  if (count > 1) comparison.slice = s_sliceOfThreads;
  compare(state, comparison, sides);
}  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the sides free what they copied

// Every benchmark that calls `compare` is declared with it.
inline void inRounds(benchmark::internal::Benchmark* benchmark) {
  benchmark->Iterations(1)->UseManualTime();
}

// Keeps a number that is measured once and is not a time, such as a peak of memory in MB.
void measured(const std::string& name, double value, const std::string& unit, double limit);

// From now on one round of one operation is all: shows that the comparisons run, and decides
// nothing.
void beQuick();

// Prints every comparison with its verdict. The exit status of a run that checks: 1 when a limit is
// passed, 2 when none is and a comparison is undecided, otherwise 0.
int printVerdicts();

}  // namespace Tessel::Bench

#endif
