// The C call that opens a store of its own each time, against the bare Connector/C calls that do
// the same.
#include <functional>
#include <string>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Rounds.h"
#include "support/TestServer.h"
#include "tsl_address_map.h"

namespace Tessel::Bench {
namespace {

// Members of every alias of a filled table.
constexpr std::size_t s_members = 5;

// What a session needs: the character set, commits, strict errors, and a collation.
constexpr char s_sessionSetUp[] =
    "set names utf8mb4, autocommit=1, sql_mode='STRICT_TRANS_TABLES,STRICT_ALL_TABLES,"
    "NO_ZERO_IN_DATE,NO_ZERO_DATE,ERROR_FOR_DIVISION_BY_ZERO,NO_ENGINE_SUBSTITUTION', "
    "collation_server=utf8mb4_uca1400_nopad_as_ci";

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

// Against the same statements: setting up the session, reading both default tables, asking for the
// alias and for each of its members.
void expandAliasCall(benchmark::State& state, const int& rows, double limit) {
  const DefaultTable table(rows);
  const std::string names[] = {aliasName(7),          "anna7@bench.example", "berta7@bench.example",
                               "carl7@bench.example", "dora7@bench.example", "emil7@bench.example"};
  tsl_emailaddress alias = tsl_emailaddress_parse(aliasName(7).c_str());
  const OneCore pinned;
  const auto ours = [&](std::size_t) {
    tsl_emailaddress_container reached = tsl_address_alias_expand_alias(alias);
    require(tsl_emailaddress_container_size(reached) == s_members);
    tsl_emailaddress_container_destroy(reached);
  };
  const auto bare = [&](std::size_t) {
    BareConnection connection("ts_address_map");
    connection.execute(s_sessionSetUp);
    for (const char* const rowsOf : {"not like '%*%'", "like '%*%' or public like '%*%'"}) {
      benchmark::DoNotOptimize(
          connection.selectAndWalk(std::string("select * from mask where private ") + rowsOf));
    }
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias;"));
    for (const std::string& name : names) {
      benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias where name='" +
                                                        connection.escaped(name) + "';"));
    }
  };
  compare(state,
          {"tsl_address_alias_expand_alias / bare calls, " + std::to_string(rows) + " rows", limit},
          timed(Clock::Everyone, ours), timed(Clock::Everyone, bare));
  tsl_emailaddress_destroy(alias);
}

BENCHMARK_CAPTURE(expandAliasCall, small, 10, 1.05)->Apply(inRounds);
BENCHMARK_CAPTURE(expandAliasCall, middle, 1000, 2.0)->Apply(inRounds);
// The rows are known when the command line has been read.
BENCHMARK_CAPTURE(expandAliasCall, large, std::cref(sizes().rows), 2.0)->Apply(inRounds);

}  // namespace
}  // namespace Tessel::Bench
