// The comparisons that the benchmarks make: which measure stands against which, and how far it may
// go.
#ifndef TSL_BENCH_RATIOS_H
#define TSL_BENCH_RATIOS_H

#include <map>
#include <string>

#include <benchmark/benchmark.h>

namespace Tessel::Bench {

// How a comparison is read.
enum class Kind {
  Ratio,         // time of `subject` divided by the time of `reference`
  Nanoseconds,   // time of `subject` divided by `per`, in ns
  ExtraPerItem,  // (time of `subject` minus time of `reference`) divided by `per`, in ns
};

// Declares a comparison under `name`; the first two are run names of benchmarks, `limit` is the
// highest value that passes. A comparison whose benchmarks did not run is left out.
void compare(const std::string& name, Kind kind, const std::string& subject,
             const std::string& reference, double per, double limit);

// Declares a measured number that is no time, such as a peak of memory in MB.
void measured(const std::string& name, double value, const std::string& unit, double limit);

// Prints the runs as usual and keeps their medians.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;

  // Prints every comparison with its limit. False when a limit was passed.
  [[nodiscard]] bool printComparisons() const;

 private:
  std::map<std::string, double> m_nanoseconds;  // By run name.
};

}  // namespace Tessel::Bench

#endif
