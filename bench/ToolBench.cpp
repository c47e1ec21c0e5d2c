// The tool over a large table: the check of it, the search for the ways to an address and the
// export, each in a process of its own, against the bare walk over the rows; and the tree of an
// alias with very many members, against the statements that it takes.
#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

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

constexpr char s_treeTable[] = "alias_tree";
// One whose members are aliases of five members each, and one whose members are none.
constexpr char s_rootOfAliases[] = "aliases@bench.example";
constexpr char s_rootOfAddresses[] = "addresses@bench.example";
// The tool asks for as many addresses with one statement.
constexpr std::size_t s_namesPerStatement = 500;
// A process that starts, connects, asks the same and writes the tree, in times of the asking.
constexpr double s_mostAsking = 2;

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

int s_treeMembers() {
  return sizes().rows / 10;
}

std::string s_plainMember(int i) {
  return "plain" + std::to_string(i) + "@bench.example";
}

void s_fillTree() {
  static bool s_isFilled = false;
  fillAliasTable(s_treeTable, s_treeMembers());
  if (std::exchange(s_isFilled, true)) return;
  BareConnection connection("ts_address_map");
  const auto insert = [&connection](const char* root, std::string (*member)(int)) {
    std::string members;
    for (int i = 0; i < s_treeMembers(); ++i) members += (i == 0 ? "" : ",") + member(i);
    connection.execute(std::string("insert into ") + s_treeTable + " ( name, members ) values( '" +
                       root + "','" + members + "' );");
  };
  insert(s_rootOfAliases, &aliasName);
  insert(s_rootOfAddresses, &s_plainMember);
}

// The names that the walk down from `root` asks for, level by level, each in its order.
std::vector<std::vector<std::string>> s_levels(const std::string& root) {
  if (root == s_rootOfAddresses) {
    std::set<std::string> plain;
    for (int i = 0; i < s_treeMembers(); ++i) plain.insert(s_plainMember(i));
    return {{root}, {plain.begin(), plain.end()}};
  }
  std::set<std::string> aliases;
  std::set<std::string> members;
  for (int i = 0; i < s_treeMembers(); ++i) {
    aliases.insert(aliasName(i));
    for (const std::string& member : aliasMembers(i)) members.insert(member);
  }
  return {{root}, {aliases.begin(), aliases.end()}, {members.begin(), members.end()}};
}

// The statements of the tree, sent and walked over by Connector/C.
void s_askForTree(const std::vector<std::vector<std::string>>& levels) {
  BareConnection connection("ts_address_map");
  for (const std::vector<std::string>& names : levels) {
    for (std::size_t first = 0; first < names.size(); first += s_namesPerStatement) {
      std::string statement =
          std::string("select name, members from ") + s_treeTable + " where name in( ";
      for (std::size_t i = first; i < std::min(names.size(), first + s_namesPerStatement); ++i) {
        statement += (i == first ? "'" : ",'") + connection.escaped(names[i]) + "'";
      }
      benchmark::DoNotOptimize(connection.selectAndWalk(statement + " );"));
    }
  }
}

void toolTree(benchmark::State& state, const std::string& root, const std::string& members) {
  s_fillTree();
  const auto levels = s_levels(root);
  const OneCore pinned;
  compare(
      state,
      {"alias tree, " + std::to_string(s_treeMembers()) + " members that are " + members +
           " / bare statements",
       s_mostAsking},
      timed(Clock::Everyone, [&](std::size_t) { runTool("alias tree " + root + " --table tree"); }),
      timed(Clock::Everyone, [&](std::size_t) { s_askForTree(levels); }));
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
BENCHMARK_CAPTURE(toolTree, aliases, s_rootOfAliases, "aliases")->Apply(inRounds);
BENCHMARK_CAPTURE(toolTree, addresses, s_rootOfAddresses, "none")->Apply(inRounds);

}  // namespace
}  // namespace Tessel::Bench
