// The import of a table file by the built tool, against a bare loop that writes the same rows, one
// statement each, in one transaction.
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Processes.h"
#include "Rounds.h"
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

// A file of `rows` lines to import. Makes it and the table at the first call.
std::string s_file(const Table& table, int rows) {
  startDatabase();
  std::string path = Testing::TestServer::shared().directory() + "/" + table.name() +
                     std::to_string(rows) + ".txt";
  if (std::filesystem::exists(path)) return path;
  Testing::TestServer::shared().sql("drop table if exists ts_address_map." + table.name());
  Database::Connection connection("ts_address_map");
  if (table.group == s_mask.group) {
    createMaskTable(connection, table.name());
  } else {
    createAliasTable(connection, table.name());
  }
  std::ofstream file(path);
  for (int i = 0; i < rows; ++i) file << s_line(table, i) << '\n';
  file.close();
  if (!file) throw std::runtime_error("the file to import could not be written");
  return path;
}

void s_empty(const Table& table) {
  Testing::TestServer::shared().sql("truncate table ts_address_map." + table.name());
}

void s_requireRows(const Table& table, int rows) {
  const auto counted =
      Testing::TestServer::shared().sql("select count(*) from ts_address_map." + table.name());
  require(counted.at(0).at(0) == std::to_string(rows));
}

std::string s_words(const Table& table, const std::string& path) {
  return std::string(table.group) + " import " + path + " --table import";
}

// Rows that an import is timed with: enough to decide, and so few that a round takes no second.
int s_timedRows() {
  return sizes().rows / 10;
}

// A side that works on an empty table, which is not a part of its time, nor is `prepare`. No slice
// is repeated, however it was disturbed: the rows would be there already.
template <class Import, class Prepare>
Side s_importing(const Table& table, int rows, Import import, Prepare prepare) {
  return [&table, rows, import, prepare](std::size_t count) {
    double seconds = 0;
    for (std::size_t i = 0; i < count; ++i) {
      s_empty(table);
      prepare();
      const double start = now(Clock::Everyone);
      import(i);
      seconds += now(Clock::Everyone) - start;
      s_requireRows(table, rows);
    }
    return seconds / static_cast<double>(count);
  };
}

void import(benchmark::State& state, const Table& table) {
  const std::string path = s_file(table, s_timedRows());
  BareConnection connection("ts_address_map");
  const std::string start =
      "insert into " + table.name() + " ( " + table.key + ", " + table.value + " ) values( '";
  const OneCore pinned;
  const auto ours = [&](std::size_t) { runTool(s_words(table, path)); };
  const auto bare = [&](std::size_t) {
    std::ifstream file(path);
    connection.execute("start transaction");
    for (std::string line; std::getline(file, line);) {
      const std::size_t colon = line.find(':');
      connection.execute(start + connection.escaped(line.substr(0, colon)) + "','" +
                         connection.escaped(line.substr(colon + 1)) + "' )");
    }
    connection.execute("commit");
  };
  Comparison comparison{std::string(table.group) + " import / bare loop of single inserts", 1.0};
  comparison.operations = 1;
  const auto nothing = [] {};
  compare(state, comparison, s_importing(table, s_timedRows(), ours, nothing),
          s_importing(table, s_timedRows(), bare, nothing));
}

BENCHMARK_CAPTURE(import, aliases, s_alias)->Apply(inRounds);
BENCHMARK_CAPTURE(import, masks, s_mask)->Apply(inRounds);

// The tables of the history are there, or not, and empty.
void s_haveHistory(bool isWanted) {
  auto& server = Testing::TestServer::shared();
  for (const std::string table : {"history", "history_rows"}) {
    server.sql("drop table if exists ts_address_map." + table);
    if (!isWanted) continue;
    std::string statement = "create table ts_address_map.";
    server.sql(statement.append(table).append(" like ts_address_map.the_").append(table));
  }
}

void importWithHistory(benchmark::State& state) {
  const int rows = sizes().rows;
  const std::string path = s_file(s_alias, rows);
  runTool("init");
  auto& server = Testing::TestServer::shared();
  server.sql(
      "rename table ts_address_map.history to ts_address_map.the_history,"
      " ts_address_map.history_rows to ts_address_map.the_history_rows");
  const auto side = [&](bool isRecorded) {
    return s_importing(
        s_alias, rows, [&path](std::size_t) { runTool(s_words(s_alias, path)); },
        [isRecorded] { s_haveHistory(isRecorded); });
  };
  const OneCore pinned;
  Comparison comparison{"alias import with history / without", 1.5};
  comparison.operations = 1;
  compare(state, comparison, side(true), side(false));
  s_haveHistory(false);
  server.sql(
      "drop table ts_address_map.the_history, ts_address_map.the_history_rows,"
      " ts_address_map.rules");
}

BENCHMARK(importWithHistory)->Apply(inRounds);

void importPeakMemory(benchmark::State& state, const Table& table) {
  const std::string path = s_file(table, sizes().rows);
  for (auto _ : state) {
    s_empty(table);
    measured(std::string("import of ") + table.group + " rows, peak memory of the tool",
             peakOf("tool:" + s_words(table, path)), "MB", 400);
  }
  s_requireRows(table, sizes().rows);
}

BENCHMARK_CAPTURE(importPeakMemory, aliases, s_alias)->Iterations(1);
BENCHMARK_CAPTURE(importPeakMemory, masks, s_mask)->Iterations(1);

}  // namespace
}  // namespace Tessel::Bench
