// The C call that opens a store of its own each time, against the bare Connector/C calls that do
// the same.
#include <string>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Ratios.h"
#include "support/TestServer.h"
#include "tsl_address_map.h"

namespace Tessel::Bench {
namespace {

// Members of every alias of a filled table.
constexpr std::size_t s_members = 5;

// While it lives, the default table, which is the only one that the call reads, is a filled table
// of that size.
class DefaultTable {
 public:
  explicit DefaultTable(int rows) : m_name("alias_sized" + std::to_string(rows)) {
    fillAliasTable(m_name, rows);
    rename("alias", "alias_default", m_name, "alias");
  }
  ~DefaultTable() { rename("alias", m_name, "alias_default", "alias"); }
  DefaultTable(const DefaultTable&) = delete;
  DefaultTable& operator=(const DefaultTable&) = delete;

 private:
  static void rename(const std::string& first, const std::string& firstTo,
                     const std::string& second, const std::string& secondTo) {
    const std::string database = "ts_address_map.";
    Testing::TestServer::shared().sql("rename table " + database + first + " to " + database +
                                      firstTo + ", " + database + second + " to " + database +
                                      secondTo);
  }

  std::string m_name;
};

void expandAliasCall(benchmark::State& state) {
  const DefaultTable table(static_cast<int>(state.range(0)));
  tsl_emailaddress alias = tsl_emailaddress_parse(aliasName(7).c_str());
  const OneCore pinned;
  for (auto _ : state) {
    tsl_emailaddress_container reached = tsl_address_alias_expand_alias(alias);
    if (tsl_emailaddress_container_size(reached) != s_members) state.SkipWithError("not expanded");
    tsl_emailaddress_container_destroy(reached);
  }
  tsl_emailaddress_destroy(alias);
}

// Connects, reads both default tables, asks for the alias and for each of its members, and closes.
void expandAliasBareCalls(benchmark::State& state) {
  const DefaultTable table(static_cast<int>(state.range(0)));
  const std::string names[] = {aliasName(7),          "anna7@bench.example", "berta7@bench.example",
                               "carl7@bench.example", "dora7@bench.example", "emil7@bench.example"};
  const OneCore pinned;
  for (auto _ : state) {
    BareConnection connection("ts_address_map");
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from mask;"));
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias;"));
    for (const std::string& name : names) {
      benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias where name='" +
                                                        connection.escaped(name) + "';"));
    }
  }
}

constexpr int s_smallest = 10;
constexpr int s_middle = 1000;
constexpr int s_largest = 100000;

BENCHMARK(expandAliasCall)->Arg(s_smallest)->Arg(s_middle)->Arg(s_largest)->UseRealTime();
BENCHMARK(expandAliasBareCalls)->Arg(s_smallest)->Arg(s_middle)->Arg(s_largest)->UseRealTime();

void s_compare(int rows, double limit) {
  const std::string run = "/" + std::to_string(rows) + "/real_time";
  compare("tsl_address_alias_expand_alias / bare calls, " + std::to_string(rows) + " rows",
          Kind::Ratio, "expandAliasCall" + run, "expandAliasBareCalls" + run, 1, limit);
}

const bool s_compared = [] {
  s_compare(s_smallest, 1.1);
  s_compare(s_middle, 2.0);
  s_compare(s_largest, 2.0);
  return true;
}();

}  // namespace
}  // namespace Tessel::Bench
