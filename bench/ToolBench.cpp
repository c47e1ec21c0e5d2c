// The tool over a large table: the check of it, the search for the ways to an address and the
// export, each in a process of its own, against the bare walk over the rows; and the tree of an
// alias with very many members, against the statements that it takes.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
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
// The measured program that is run anew names the folder itself.
constexpr char s_export[] = "alias export FILE";

constexpr char s_treeTable[] = "alias_tree";
// One whose members are aliases of five members each, and one whose members are none.
constexpr char s_rootOfAliases[] = "aliases@bench.example";
constexpr char s_rootOfAddresses[] = "addresses@bench.example";
// The tool asks for as many addresses with one statement.
constexpr std::size_t s_namesPerStatement = 500;
// A process that starts, connects, asks the same and writes the tree, in times of the asking.
constexpr double s_mostAsking = 2;

// Where exports go; in memory where the system has such a folder, so that no disk is measured.
std::string s_exportFile() {
  const char* const memory = "/dev/shm";
  const std::filesystem::path folder = std::filesystem::is_directory(memory)
                                           ? std::filesystem::path(memory)
                                           : std::filesystem::temp_directory_path();
  return folder / ("tsl-bench-export-" + std::to_string(getpid()));
}

// Runs the tool with `words` on the tables of the store name `name` and returns the peak of its
// resident memory in kilobytes. That of a child counts from its parent's size on, so the parent
// must be small where the number is to mean something. Throws when the tool does not end with 0.
long s_run(const std::string& words, const std::string& name = "tool") {
  // Both programs are built into one folder.
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  std::vector<std::string> texts{self.parent_path() / "tsl-address-map", "--table", name};
  std::istringstream stream(words);
  for (std::string word; stream >> word;) texts.push_back(word == "FILE" ? s_exportFile() : word);
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
  std::filesystem::remove(s_exportFile());
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

void toolTree(benchmark::State& state, const std::string& root) {
  s_fillTree();
  for (auto _ : state) s_run("alias tree " + root, "tree");
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
void toolTreeBare(benchmark::State& state, const std::string& root) {
  s_fillTree();
  const auto levels = s_levels(root);
  for (auto _ : state) {
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
BENCHMARK_CAPTURE(toolOver, export, s_export)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(toolBareWalk)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(toolPeakMemory, check, "check", s_check)->Iterations(1)->Repetitions(1);
BENCHMARK_CAPTURE(toolPeakMemory, who, "alias who", s_who)->Iterations(1)->Repetitions(1);
BENCHMARK_CAPTURE(toolPeakMemory, export, "alias export", s_export)->Iterations(1)->Repetitions(1);
BENCHMARK_CAPTURE(toolTree, aliases, s_rootOfAliases)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(toolTree, addresses, s_rootOfAddresses)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(toolTreeBare, aliases, s_rootOfAliases)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(toolTreeBare, addresses, s_rootOfAddresses)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

const bool s_compared = [] {
  compare("check of ten times the rows / bare select *", Kind::Ratio, "toolOver/check/real_time",
          "toolBareWalk/real_time", 1, s_mostWalks);
  compare("alias who in ten times the rows / bare select *", Kind::Ratio, "toolOver/who/real_time",
          "toolBareWalk/real_time", 1, s_mostWalks);
  compare("alias export of ten times the rows / bare select *", Kind::Ratio,
          "toolOver/export/real_time", "toolBareWalk/real_time", 1, s_mostWalks);
  compare("alias tree, 10,000 members that are aliases / bare statements", Kind::Ratio,
          "toolTree/aliases/real_time", "toolTreeBare/aliases/real_time", 1, s_mostAsking);
  compare("alias tree, 10,000 members that are none / bare statements", Kind::Ratio,
          "toolTree/addresses/real_time", "toolTreeBare/addresses/real_time", 1, s_mostAsking);
  return true;
}();

}  // namespace

void toolForItsPeak(const std::string& words) {
  std::printf("%ld\n", s_run(words));
  std::filesystem::remove(s_exportFile());
}

}  // namespace Tessel::Bench
