// Benchmarks of the address-map library: what it does, against the bare thing that does the same
// work. Every comparison is made in rounds (see Rounds.h), so the verdicts do not depend on what
// else the machine does. Run with --help for the options.
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchDatabase.h"
#include "Processes.h"
#include "Rounds.h"
#include "support/TestServer.h"

namespace Tessel::Bench {

// Does the work whose peak of memory another run measures, on that run's database.
void runForItsPeak(const std::string& work);

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

constexpr char s_help[] =
    "tsl_bench compares the library with the bare thing that does the same work, in rounds: the\n"
    "two in turn, a few milliseconds each. It prints the median of the rounds' ratios, the 99 %\n"
    "confidence interval of that median, and what that says of the limit: ok, OVER THE LIMIT, or\n"
    "undecided when the interval holds the limit and 20 seconds of rounds did not change that.\n"
    "\n"
    "  --check                 exit with 1 when a limit is passed, and with 2 when none is but\n"
    "                          a comparison is undecided\n"
    "  --rows=N                rows of the large tables (100000); the largest have ten times as "
    "many\n"
    "  --users=N               mailboxes of the large domain (100000)\n"
    "  --quick                 one round of each comparison and no verdict: shows that they run\n"
    "  --benchmark_filter=R    only the benchmarks whose name matches\n"
    "\n"
    "Exit status 3: the measured work went wrong.\n\n";

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
  // Another run of this program measures what it takes, see `peakOf`.
  const std::string tool = "--peak=tool:";
  if (argc == 2 && std::string(argv[1]).starts_with(tool)) {
    std::printf("%ld\n", runTool(argv[1] + tool.size()));
    return 0;
  }
  const std::string peak = "--peak=";
  if (argc == 2 && std::string(argv[1]).starts_with(peak)) {
    runForItsPeak(argv[1] + peak.size());
    return 0;
  }
  std::vector<char*> arguments(argv, argv + argc);
  const bool check = s_takeFlag(arguments, "--check");
  if (s_takeFlag(arguments, "--quick")) beQuick();
  s_takeNumber(arguments, "rows", sizes().rows);
  s_takeNumber(arguments, "users", sizes().users);
  if (std::find(arguments.begin(), arguments.end(), std::string("--help")) != arguments.end()) {
    std::fputs(s_help, stdout);
  }
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 64;

  s_printCircumstances();
  benchmark::RunSpecifiedBenchmarks();
  const int status = printVerdicts();
  return check ? status : 0;
}

}  // namespace Tessel::Bench

int main(int argc, char** argv) {
  try {
    return Tessel::Bench::run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tsl_bench: %s\n", failure.what());
    return 3;
  }
}
