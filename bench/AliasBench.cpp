// Alias tables: a cached expansion against the bare containers, an uncached lookup against the bare
// statement, and preload against the bare "select *".
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "AddressMapDb.h"
#include "BareCache.h"
#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Processes.h"
#include "Rounds.h"
#include "alias/AddressAliasDbMySQL.h"
#include "map/AddressMapMySQL.h"

namespace Tessel::Bench {
namespace {

// Aliases in the small table: as many as the cache holds.
constexpr int s_cached = 256;
// Members of every alias.
constexpr std::size_t s_members = 5;

// An expansion by a store of its own, whose cache holds every alias of a small table.
auto s_cachedExpansion() {
  fillAliasTable("alias_small", s_cached);
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("small");
  std::vector<EmailAddress> addresses;
  for (int i = 0; i < s_cached; ++i) {
    addresses.push_back(EmailAddress::rfc5321Parse(aliasName(i), false));
    require(table.expandAlias(addresses.back()).size() == s_members);
  }
  return [store, table, addresses](std::size_t i) {
    const std::set<EmailAddress> found = table.expandAlias(addresses[scattered(i, s_cached)]);
    require(found.size() == s_members);
    benchmark::DoNotOptimize(&found);
  };
}

// What a cached expansion cannot do without: map, list, lock and the copy of a set, with strings.
auto s_bareExpansion() {
  const auto cache = std::make_shared<BareCache<std::string, std::set<std::string>>>();
  std::vector<std::string> names;
  for (int i = 0; i < s_cached; ++i) {
    names.push_back(aliasName(i));
    const std::vector<std::string> members = aliasMembers(i);
    cache->add(names.back(), {members.begin(), members.end()});
  }
  return [cache, names](std::size_t i) {
    const std::set<std::string> found = cache->find(names[scattered(i, s_cached)])->second;
    require(found.size() == s_members);
    benchmark::DoNotOptimize(&found);
  };
}

void cachedExpandAlias(benchmark::State& state) {
  compareHits(state, "cached expandAlias / bare containers", &s_cachedExpansion, &s_bareExpansion);
}

BENCHMARK(cachedExpandAlias)->Arg(1)->Arg(2)->Apply(inRounds);

// An address that is not an alias of a table with more rows than the cache holds: one statement.
void aliasStatementNoRow(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("large");
  const EmailAddress unknown = EmailAddress::rfc5321Parse("unknown@bench.example", false);
  compareStatement(state, {"uncached expandAlias / bare statement, no row", s_mostOfStatement},
                   [&] { require(table.expandAlias(unknown).empty()); },
                   {"alias_large", "name", unknown.address()});
}

// The members of an alias: one statement and one row.
void aliasStatementOneRow(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  AddressMapDbMySQL store(false);
  const AddressAliasDbMySQL table(store, false, "large");
  const EmailAddress alias = EmailAddress::rfc5321Parse(aliasName(7), false);
  const auto find = [&] {
    std::set<EmailAddress> members;
    table.queryFindMembers(alias, members);
    require(members.size() == s_members);
  };
  compareStatement(state,
                   {"uncached queryFindMembers / bare statement, one row", s_mostOfStatement}, find,
                   {"alias_large", "name", alias.address()});
}

BENCHMARK(aliasStatementNoRow)->Apply(inRounds);
BENCHMARK(aliasStatementOneRow)->Apply(inRounds);

// Reading a table of `factor` times the rows, against "select *" of it.
void preload(benchmark::State& state, const std::string& name, int factor, double limit) {
  const std::string table = "alias_" + name;
  fillAliasTable(table, sizes().rows * factor);
  AddressMapDbMySQL store(false);
  BareConnection connection("ts_address_map");
  const OneCore pinned;
  const auto ours = [&](std::size_t) {
    const AddressAliasDbMySQL opened(store, true, name);
    require(!opened.isEveryAliasCached());
  };
  const auto bare = [&](std::size_t) { connection.selectAndWalk("select * from " + table + ";"); };
  const std::string what = factor == 1 ? "preload" : "preload of ten times the rows";
  compare(state, {what + " / bare select *", limit}, timed(Clock::Everyone, ours),
          timed(Clock::Everyone, bare));
}

BENCHMARK_CAPTURE(preload, large, "large", 1, 2.5)->Apply(inRounds);
BENCHMARK_CAPTURE(preload, huge, "huge", s_huge, s_noLimit)->Apply(inRounds);

// How much memory a preload takes above the result that Connector/C holds.
void preloadPeakMemory(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  for (auto _ : state) {
    measured("preload, peak memory above the bare result", peakOf("preload") - peakOf("bare"), "MB",
             120);
  }
}

BENCHMARK(preloadPeakMemory)->Iterations(1);

}  // namespace

void runForItsPeak(const std::string& work) {
  if (work == "bare") {
    BareConnection("ts_address_map").selectAndWalk("select * from alias_large;");
  } else {
    AddressMapDbMySQL store(false);
    const AddressAliasDbMySQL table(store, true, "large");
  }
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) std::puts(line.c_str() + line.find_first_of("0123456789"));
  }
}

}  // namespace Tessel::Bench
