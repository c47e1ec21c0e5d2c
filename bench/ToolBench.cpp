// The tool over a large table: the check of it and the search for the ways to an address, each in a
// process of its own, against the bare walk over the rows.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Ratios.h"

namespace Tessel::Bench {
namespace {

// As many times the rows of the large table as the largest table of the preload has.
constexpr int s_times = 10;
constexpr char s_table[] = "alias_tool";
// What the tool is to stay under: MB, and bare walks.
constexpr double s_mostMemory = 1000;
constexpr double s_mostWalks = 3;

constexpr char s_check[] = "check";
constexpr char s_who[] = "alias who anna0@bench.example";

// Runs the tool with `words` on the large table and returns the peak of its resident memory in
// kilobytes. That of a child counts from its parent's size on, so the parent must be small where
// the number is to mean something. Throws when the tool does not end with 0.
long s_run(const std::string& words) {
  // Both programs are built into one folder.
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  std::vector<std::string> texts{self.parent_path() / "tsl-address-map", "--table", "tool"};
  std::istringstream stream(words);
  for (std::string word; stream >> word;) texts.push_back(word);
  std::vector<char*> arguments;
  for (std::string& text : texts) arguments.push_back(text.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int failed =
      posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw std::runtime_error("tsl-address-map is not beside the benchmarks");
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child || status != 0) {
    throw std::runtime_error("tsl-address-map failed: " + words);
  }
  return usage.ru_maxrss;
}

void s_fill() {
  fillAliasTable(s_table, s_times * sizes().rows);
}

void toolOver(benchmark::State& state, const std::string& words) {
  s_fill();
  for (auto _ : state) s_run(words);
}

void toolBareWalk(benchmark::State& state) {
  s_fill();
  BareConnection connection("ts_address_map");
  for (auto _ : state) {
    benchmark::DoNotOptimize(connection.selectAndWalk(std::string("select * from ") + s_table));
  }
}

// The peak of the tool's memory, taken by this program run anew, which is small.
void toolPeakMemory(benchmark::State& state, const std::string& name, const std::string& words) {
  s_fill();
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  for (auto _ : state) {
    const std::unique_ptr<FILE, decltype(&pclose)> output(
        popen(("'" + program + "' '--peak=tool:" + words + "'").c_str(), "r"), &pclose);
    double kilobytes = 0;
    // Any number will do.
    if (!output || std::fscanf(output.get(), "%lf", &kilobytes) != 1) {  // NOLINT(cert-err34-c)
      throw std::runtime_error("the measured program failed");
    }
    measured(name + " of ten times the rows, peak memory", kilobytes / 1024, "MB", s_mostMemory);
  }
}

BENCHMARK_CAPTURE(toolOver, check, s_check)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(toolOver, who, s_who)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(toolBareWalk)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(toolPeakMemory, check, "check", s_check)->Iterations(1)->Repetitions(1);
BENCHMARK_CAPTURE(toolPeakMemory, who, "alias who", s_who)->Iterations(1)->Repetitions(1);

const bool s_compared = [] {
  compare("check of ten times the rows / bare select *", Kind::Ratio, "toolOver/check/real_time",
          "toolBareWalk/real_time", 1, s_mostWalks);
  compare("alias who in ten times the rows / bare select *", Kind::Ratio, "toolOver/who/real_time",
          "toolBareWalk/real_time", 1, s_mostWalks);
  return true;
}();

}  // namespace

void toolForItsPeak(const std::string& words) {
  std::printf("%ld\n", s_run(words));
}

}  // namespace Tessel::Bench
