// The comparisons that the benchmarks make.
#include "Ratios.h"

#include <cstdio>
#include <limits>
#include <optional>
#include <vector>

namespace Tessel::Bench {

namespace {

struct Comparison {
  std::string name;
  Kind kind;
  std::string subject;
  std::string reference;
  double per;
  double limit;
};

struct Measure {
  std::string name;
  double value;
  std::string unit;
  double limit;
};

std::vector<Comparison>& s_comparisons() {
  static std::vector<Comparison> s_all;
  return s_all;
}

std::vector<Measure>& s_measures() {
  static std::vector<Measure> s_all;
  return s_all;
}

bool s_print(const std::string& name, double value, const std::string& unit, double limit) {
  const bool passes = value <= limit;
  if (limit == std::numeric_limits<double>::infinity()) {
    std::printf("%-58s %10.3f %-8s\n", name.c_str(), value, unit.c_str());
  } else {
    std::printf("%-58s %10.3f %-8s limit %8.2f  %s\n", name.c_str(), value, unit.c_str(), limit,
                passes ? "ok" : "OVER THE LIMIT");
  }
  return passes;
}

}  // namespace

void compare(const std::string& name, Kind kind, const std::string& subject,
             const std::string& reference, double per, double limit) {
  s_comparisons().push_back({name, kind, subject, reference, per, limit});
}

void measured(const std::string& name, double value, const std::string& unit, double limit) {
  s_measures().push_back({name, value, unit, limit});
}

void MedianReporter::ReportRuns(const std::vector<Run>& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const Run& run : runs) {
    if (run.error_occurred) continue;
    const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    const bool only = run.run_type == Run::RT_Iteration && run.repetitions == 1;
    if (!median && !only) continue;
    const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
    const std::string name = run.run_name.str();
    // What waits for nobody is measured by its own processor time: other programs count less.
    const bool waits = name.find("real_time") != std::string::npos;
    const double time = waits ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
    m_nanoseconds[name] = time * 1e9 / unit;
  }
}

bool MedianReporter::printComparisons() const {
  std::printf("\nMedians compared within this run\n");
  bool pass = true;
  for (const Comparison& comparison : s_comparisons()) {
    const auto subject = m_nanoseconds.find(comparison.subject);
    if (subject == m_nanoseconds.end()) continue;
    double value = subject->second;
    if (comparison.kind != Kind::Nanoseconds) {
      const auto reference = m_nanoseconds.find(comparison.reference);
      if (reference == m_nanoseconds.end()) continue;
      value =
          comparison.kind == Kind::Ratio ? value / reference->second : value - reference->second;
    }
    const char* const unit = comparison.kind == Kind::Ratio ? "times" : "ns";
    pass = s_print(comparison.name, value / comparison.per, unit, comparison.limit) && pass;
  }
  for (const Measure& measure : s_measures()) {
    pass = s_print(measure.name, measure.value, measure.unit, measure.limit) && pass;
  }
  return pass;
}

}  // namespace Tessel::Bench
