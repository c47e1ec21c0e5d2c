// The import of a table file by the built tool, against a bare loop that writes the same rows, one
// statement each, in one transaction.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Ratios.h"
#include "database/Connection.h"
#include "map/AddressMapMySQL.h"
#include "support/TestServer.h"

namespace Tessel::Bench {
namespace {

// Tables of their own: the base tables are read by every store with preload.
struct Table {
  const char* group;
  const char* key;
  const char* value;

  [[nodiscard]] std::string name() const { return std::string(group) + "_import"; }
};

constexpr Table s_alias{"alias", "name", "members"};
constexpr Table s_mask{"mask", "private", "public"};

std::string s_line(const Table& table, int i) {
  const std::string number = std::to_string(i);
  if (table.group == s_mask.group) {
    return "private" + number + "@inner.example:public" + number + "@bench.example";
  }
  std::string line = aliasName(i);
  char separator = ':';
  for (const char* name : {"anna", "berta", "carl", "dora", "emil"}) {
    line.append(1, separator).append(name).append(number).append("@bench.example");
    separator = ',';
  }
  return line;
}

// The file to import, made at the first call, as is the table.
std::string s_prepare(const Table& table) {
  startDatabase();
  const std::string path = Testing::TestServer::shared().directory() + "/" + table.name() + ".txt";
  if (std::filesystem::exists(path)) return path;
  Database::Connection connection("ts_address_map");
  if (table.group == s_mask.group) {
    createMaskTable(connection, table.name());
  } else {
    createAliasTable(connection, table.name());
  }
  std::ofstream file(path);
  for (int i = 0; i < sizes().rows; ++i) file << s_line(table, i) << '\n';
  file.close();
  if (!file) throw std::runtime_error("the file to import could not be written");
  return path;
}

void s_empty(const Table& table) {
  Testing::TestServer::shared().sql("truncate table ts_address_map." + table.name());
}

void s_requireAll(const Table& table, benchmark::State& state) {
  const auto rows =
      Testing::TestServer::shared().sql("select count(*) from ts_address_map." + table.name());
  if (rows.at(0).at(0) != std::to_string(sizes().rows)) state.SkipWithError("rows are missing");
}

// Runs the tool and returns the peak of its resident memory in kilobytes. That of a child counts
// from its parent's size on, so the parent must be small where the number is to mean something.
long s_import(const std::string& group, const std::string& path) {
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  std::string program = self.parent_path() / "tsl-address-map";
  std::array<std::string, 5> words = {group, "import", path, "--table", "import"};
  std::array<char*, 7> arguments = {program.data(),  words[0].data(), words[1].data(),
                                    words[2].data(), words[3].data(), words[4].data(),
                                    nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int failed =
      posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw std::runtime_error("tsl-address-map is not beside the benchmarks");
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child || status != 0) {
    throw std::runtime_error("tsl-address-map could not import");
  }
  return usage.ru_maxrss;
}

void importByTool(benchmark::State& state, const Table& table) {
  const std::string path = s_prepare(table);
  for (auto _ : state) {
    state.PauseTiming();
    s_empty(table);
    state.ResumeTiming();
    s_import(table.group, path);
  }
  s_requireAll(table, state);
}

void importBare(benchmark::State& state, const Table& table) {
  const std::string path = s_prepare(table);
  BareConnection connection("ts_address_map");
  const std::string start =
      "insert into " + table.name() + " ( " + table.key + ", " + table.value + " ) values( '";
  for (auto _ : state) {
    state.PauseTiming();
    s_empty(table);
    state.ResumeTiming();
    std::ifstream file(path);
    connection.execute("start transaction");
    for (std::string line; std::getline(file, line);) {
      const std::size_t colon = line.find(':');
      connection.execute(start + connection.escaped(line.substr(0, colon)) + "','" +
                         connection.escaped(line.substr(colon + 1)) + "' )");
    }
    connection.execute("commit");
  }
  s_requireAll(table, state);
}

// Each is a second or more: once is enough for one of the repetitions.
#define TSL_IMPORT_BENCH(function, name, table) \
  BENCHMARK_CAPTURE(function, name, table)      \
      ->Iterations(1)                           \
      ->UseRealTime()                           \
      ->Unit(benchmark::kMillisecond)

TSL_IMPORT_BENCH(importByTool, aliases, s_alias);
TSL_IMPORT_BENCH(importBare, aliases, s_alias);
TSL_IMPORT_BENCH(importByTool, masks, s_mask);
TSL_IMPORT_BENCH(importBare, masks, s_mask);

// The peak of the tool's memory, taken by this program run anew, which is small.
void importPeakMemory(benchmark::State& state, const Table& table) {
  const std::string path = s_prepare(table);
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  for (auto _ : state) {
    s_empty(table);
    const std::unique_ptr<FILE, decltype(&pclose)> output(
        popen(("'" + program + "' '--peak=import:" + table.group + ":" + path + "'").c_str(), "r"),
        &pclose);
    double kilobytes = 0;
    // Any number will do.
    if (!output || std::fscanf(output.get(), "%lf", &kilobytes) != 1) {  // NOLINT(cert-err34-c)
      throw std::runtime_error("the measured program failed");
    }
    measured(std::string("import of ") + table.group + " rows, peak memory of the tool",
             kilobytes / 1024, "MB", 400);
  }
  s_requireAll(table, state);
}

BENCHMARK_CAPTURE(importPeakMemory, aliases, s_alias)->Iterations(1)->Repetitions(1);
BENCHMARK_CAPTURE(importPeakMemory, masks, s_mask)->Iterations(1)->Repetitions(1);

const bool s_compared = [] {
  compare("alias import / bare loop of single inserts", Kind::Ratio,
          "importByTool/aliases/iterations:1/real_time",
          "importBare/aliases/iterations:1/real_time", 1, 1.0);
  compare("mask import / bare loop of single inserts", Kind::Ratio,
          "importByTool/masks/iterations:1/real_time", "importBare/masks/iterations:1/real_time", 1,
          1.0);
  return true;
}();

}  // namespace

void importForItsPeak(const std::string& groupAndPath) {
  const std::size_t colon = groupAndPath.find(':');
  std::printf("%ld\n", s_import(groupAndPath.substr(0, colon), groupAndPath.substr(colon + 1)));
}

}  // namespace Tessel::Bench
