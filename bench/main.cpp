// Benchmarks of the address-map library, printed as ratios to the bare thing within one run.
//
//   tsl_bench                      everything, medians of five repetitions
//   tsl_bench --check              the same; exits with 1 when a limit is passed
//   tsl_bench --rows=N --users=N   rows of the large table, mailboxes of the large domain
//   tsl_bench --benchmark_filter=R only the benchmarks that match (and the ratios they allow)
//
// Operations: cachedExpandAlias, uncachedExpandAlias, uncachedFindMembers, preload (large, and huge
// of ten times the rows), preloadPeakMemory, allUsersExpansion, importByTool, importPeakMemory,
// toolOver, toolPeakMemory, toolTree, maskForwardHit, maskReverseHit, maskUncached,
// maskWildcardHit, the parsers and the comparisons of EmailAddress; those named "bare" are what
// they are measured against.
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchDatabase.h"
#include "Ratios.h"
#include "support/TestServer.h"

namespace Tessel::Bench {

void compareAllUsers();
// Does the work whose peak of memory another run measures, on that run's database.
void runForItsPeak(const std::string& work);
// The same for the import by the tool: prints its peak in kilobytes.
void importForItsPeak(const std::string& groupAndPath);
// The same for the tool with `words` on its large table.
void toolForItsPeak(const std::string& words);

namespace {

// Takes "--NAME=NUMBER" out of `arguments`.
void s_takeNumber(std::vector<char*>& arguments, const std::string& name, int& number) {
  const std::string prefix = "--" + name + "=";
  const auto found = std::find_if(arguments.begin(), arguments.end(), [&](const char* argument) {
    return std::strncmp(argument, prefix.c_str(), prefix.size()) == 0;
  });
  if (found == arguments.end()) return;
  number = static_cast<int>(std::strtol(*found + prefix.size(), nullptr, 10));
  arguments.erase(found);
}

bool s_takeFlag(std::vector<char*>& arguments, const std::string& flag) {
  const auto found = std::find(arguments.begin(), arguments.end(), flag);
  if (found == arguments.end()) return false;
  arguments.erase(found);
  return true;
}

void s_printCircumstances() {
  utsname system{};
  uname(&system);
  std::printf("system   %s %s %s\n", system.sysname, system.release, system.machine);
  std::printf("compiler %s, %s\n", TSL_BENCH_COMPILER, TSL_BENCH_BUILD);
  std::printf("server   %s\n",
              Testing::TestServer::shared().sql("select version()").at(0).at(0).c_str());
  std::printf("sizes    %d rows, %d users\n", sizes().rows, sizes().users);
  std::fflush(stdout);
}

}  // namespace

int run(int argc, char** argv) {
  const std::string import = "--peak=import:";
  if (argc == 2 && std::string(argv[1]).starts_with(import)) {
    importForItsPeak(argv[1] + import.size());
    return 0;
  }
  const std::string tool = "--peak=tool:";
  if (argc == 2 && std::string(argv[1]).starts_with(tool)) {
    toolForItsPeak(argv[1] + tool.size());
    return 0;
  }
  const std::string peak = "--peak=";
  if (argc == 2 && std::string(argv[1]).starts_with(peak)) {
    runForItsPeak(argv[1] + peak.size());
    return 0;
  }
  std::vector<char*> arguments(argv, argv + argc);
  const bool check = s_takeFlag(arguments, "--check");
  s_takeNumber(arguments, "rows", sizes().rows);
  s_takeNumber(arguments, "users", sizes().users);
  // Defaults first, so that the caller's own flags win.
  std::string repetitions = "--benchmark_repetitions=5";
  std::string aggregates = "--benchmark_report_aggregates_only=true";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  arguments.insert(arguments.begin() + 1,
                   {repetitions.data(), aggregates.data(), interleaving.data()});
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 64;

  s_printCircumstances();
  compareAllUsers();
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const bool pass = reporter.printComparisons();
  return check && !pass ? 1 : 0;
}

}  // namespace Tessel::Bench

int main(int argc, char** argv) {
  return Tessel::Bench::run(argc, argv);
}
