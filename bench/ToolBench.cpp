// The tool over a large table: the check of it, the search for the ways to an address and the
// export, each in a process of its own, against the bare walk over the rows.
#include <cstddef>
#include <string>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Processes.h"
#include "Rounds.h"

namespace Tessel::Bench {
namespace {

// What the tool is to stay under: MB, and bare walks.
constexpr double s_mostMemory = 1000;
constexpr double s_mostWalks = 3;

constexpr char s_check[] = "check";
constexpr char s_who[] = "alias who anna0@bench.example";
constexpr char s_export[] = "alias export FILE";

// The table that the time is measured on has three times the rows of a large one: the start of a
// process hardly counts then, and there is time for enough rounds.
void toolOver(benchmark::State& state, const std::string& name, const std::string& words) {
  fillAliasTable("alias_tool", 3 * sizes().rows);
  BareConnection connection("ts_address_map");
  const OneCore pinned;
  compare(state, {name + " of three times the rows / bare select *", s_mostWalks},
          timed(Clock::Everyone, [&](std::size_t) { runTool(words + " --table tool"); }),
          timed(Clock::Everyone,
                [&](std::size_t) { connection.selectAndWalk("select * from alias_tool"); }));
}

void toolPeakMemory(benchmark::State& state, const std::string& name, const std::string& words) {
  fillAliasTable("alias_huge", s_huge * sizes().rows);
  for (auto _ : state) {
    measured(name + " of ten times the rows, peak memory",
             peakOf("tool:" + words + " --table huge"), "MB", s_mostMemory);
  }
}

BENCHMARK_CAPTURE(toolOver, check, "check", s_check)->Apply(inRounds);
BENCHMARK_CAPTURE(toolOver, who, "alias who", s_who)->Apply(inRounds);
BENCHMARK_CAPTURE(toolOver, export, "alias export", s_export)->Apply(inRounds);
BENCHMARK_CAPTURE(toolPeakMemory, check, "check", s_check)->Iterations(1);
BENCHMARK_CAPTURE(toolPeakMemory, who, "alias who", s_who)->Iterations(1);
BENCHMARK_CAPTURE(toolPeakMemory, export, "alias export", s_export)->Iterations(1);

}  // namespace
}  // namespace Tessel::Bench
