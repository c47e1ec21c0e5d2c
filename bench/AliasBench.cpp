// Alias tables: a cached expansion against the bare containers, an uncached lookup against the bare
// statement, and preload against the bare "select *".
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "AddressMapDb.h"
#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Ratios.h"
#include "alias/AddressAliasDbMySQL.h"
#include "map/AddressMapMySQL.h"

namespace Tessel::Bench {
namespace {

// Aliases in the small table: as many as the cache holds.
constexpr int s_cached = 256;

// A store whose cache holds every alias of a small table.
AddressMapDb& s_cachedStore() {
  static AddressMapDb s_store = [] {
    fillAliasTable("alias_small", s_cached);
    AddressMapDb store(AddressMapDb::MySQL, true);
    const AddressAliasDb table = store.aliasDb("small");
    for (int i = 0; i < s_cached; ++i) {
      static_cast<void>(table.expandAlias(EmailAddress::rfc5321Parse(aliasName(i), false)));
    }
    return store;
  }();
  return s_store;
}

void cachedExpandAlias(benchmark::State& state) {
  const AddressAliasDb table = s_cachedStore().aliasDb("small");
  std::vector<EmailAddress> names;
  names.reserve(s_cached);
  for (int i = 0; i < s_cached; ++i) {
    names.push_back(EmailAddress::rfc5321Parse(aliasName(i), false));
  }
  auto next = static_cast<std::size_t>(state.thread_index()) * 101;
  for (auto _ : state) {
    const std::set<EmailAddress> found = table.expandAlias(names[next++ % s_cached]);
    if (found.size() != 5) state.SkipWithError("the alias was not found");
    benchmark::DoNotOptimize(&found);
  }
}

// What a cached expansion cannot do without: map, list, lock and the copy of a set, with strings.
struct BareCache {
  using Entry = std::pair<std::string, std::set<std::string>>;
  boost::shared_mutex mutex;
  std::list<Entry> recent;
  std::map<std::string, std::list<Entry>::iterator> index;

  std::list<Entry>::iterator find(const std::string& key) {
    const boost::unique_lock<boost::shared_mutex> lock(mutex);
    const auto node = index.find(key);
    recent.splice(recent.begin(), recent, node->second);
    return recent.begin();
  }
};

BareCache& s_bareCache() {
  static BareCache s_cache;
  static const bool s_filled = [] {
    for (int i = 0; i < s_cached; ++i) {
      std::set<std::string> members;
      for (const char* name : {"anna", "berta", "carl", "dora", "emil"}) {
        members.insert(name + std::to_string(i) + "@bench.example");
      }
      s_cache.recent.emplace_front(aliasName(i), members);
      s_cache.index[aliasName(i)] = s_cache.recent.begin();
    }
    return true;
  }();
  static_cast<void>(s_filled);
  return s_cache;
}

void cachedBareContainers(benchmark::State& state) {
  BareCache& cache = s_bareCache();
  std::vector<std::string> names;
  names.reserve(s_cached);
  for (int i = 0; i < s_cached; ++i) names.push_back(aliasName(i));
  auto next = static_cast<std::size_t>(state.thread_index()) * 101;
  for (auto _ : state) {
    const std::set<std::string> found = cache.find(names[next++ % s_cached])->second;
    benchmark::DoNotOptimize(&found);
  }
}

BENCHMARK(cachedExpandAlias)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(cachedBareContainers)->Threads(1)->Threads(2)->UseRealTime();

// An address that is no alias of a table with more rows than the cache holds: one statement.
void uncachedExpandAlias(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("large");
  const EmailAddress unknown = EmailAddress::rfc5321Parse("unknown@bench.example", false);
  const OneCore pinned;
  for (auto _ : state) benchmark::DoNotOptimize(table.expandAlias(unknown));
}

void uncachedBareNoRow(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  BareConnection connection("ts_address_map");
  const std::string name = "unknown@bench.example";
  const OneCore pinned;
  for (auto _ : state) {
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias_large where name='" +
                                                      connection.escaped(name) + "';"));
  }
}

// The members of an alias: one statement and one row.
void uncachedFindMembers(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  AddressMapDbMySQL store(false);
  const AddressAliasDbMySQL table(store, false, "large");
  const EmailAddress alias = EmailAddress::rfc5321Parse(aliasName(7), false);
  const OneCore pinned;
  for (auto _ : state) {
    std::set<EmailAddress> members;
    table.queryFindMembers(alias, members);
    benchmark::DoNotOptimize(&members);
  }
}

void uncachedBareOneRow(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  BareConnection connection("ts_address_map");
  const std::string name = aliasName(7);
  const OneCore pinned;
  for (auto _ : state) {
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias_large where name='" +
                                                      connection.escaped(name) + "';"));
  }
}

BENCHMARK(uncachedExpandAlias)->UseRealTime();
BENCHMARK(uncachedBareNoRow)->UseRealTime();
BENCHMARK(uncachedFindMembers)->UseRealTime();
BENCHMARK(uncachedBareOneRow)->UseRealTime();

void preload(benchmark::State& state, const std::string& name, int factor) {
  fillAliasTable("alias_" + name, sizes().rows * factor);
  AddressMapDbMySQL store(false);
  for (auto _ : state) {
    const AddressAliasDbMySQL table(store, true, name);
    if (table.isEveryAliasCached()) state.SkipWithError("no rows were counted");
  }
}

void preloadBare(benchmark::State& state, const std::string& name, int factor) {
  fillAliasTable("alias_" + name, sizes().rows * factor);
  BareConnection connection("ts_address_map");
  for (auto _ : state) {
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from alias_" + name + ";"));
  }
}

BENCHMARK_CAPTURE(preload, large, "large", 1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(preloadBare, large, "large", 1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(preload, huge, "huge", 10)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(preloadBare, huge, "huge", 10)->UseRealTime()->Unit(benchmark::kMillisecond);

// Peak of resident memory, in MB, of this program run anew with "--peak=" and `work`. The peak that
// the system keeps for a child would be that of its parent.
double s_peakOf(const std::string& work) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::unique_ptr<FILE, decltype(&pclose)> output(
      popen(("'" + program + "' --peak=" + work).c_str(), "r"), &pclose);
  double kilobytes = 0;
  if (!output || std::fscanf(output.get(), "%lf", &kilobytes) !=
                     1) {  // NOLINT(cert-err34-c): any number will do
    throw std::runtime_error("the measured program failed");
  }
  return kilobytes / 1024;
}

// How much memory a preload takes above the result that Connector/C holds.
void preloadPeakMemory(benchmark::State& state) {
  fillAliasTable("alias_large", sizes().rows);
  for (auto _ : state) {
    const double bare = s_peakOf("bare");
    const double ours = s_peakOf("preload");
    state.counters["bareMB"] = bare;
    state.counters["oursMB"] = ours;
    static const bool s_once = [&] {
      measured("preload, peak memory above the bare result", ours - bare, "MB", 120);
      return true;
    }();
    static_cast<void>(s_once);
  }
}

BENCHMARK(preloadPeakMemory)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);

const bool s_compared = [] {
  constexpr double s_none = std::numeric_limits<double>::infinity();
  compare("cached expandAlias / bare containers, 1 thread", Kind::Ratio,
          "cachedExpandAlias/real_time/threads:1", "cachedBareContainers/real_time/threads:1", 1,
          1.5);
  compare("cached expandAlias / bare containers, 2 threads", Kind::Ratio,
          "cachedExpandAlias/real_time/threads:2", "cachedBareContainers/real_time/threads:2", 1,
          1.5);
  compare("uncached expandAlias / bare statement, no row", Kind::Ratio,
          "uncachedExpandAlias/real_time", "uncachedBareNoRow/real_time", 1, 1.15);
  compare("uncached queryFindMembers / bare statement, one row", Kind::Ratio,
          "uncachedFindMembers/real_time", "uncachedBareOneRow/real_time", 1, 1.15);
  compare("preload / bare select *", Kind::Ratio, "preload/large/real_time",
          "preloadBare/large/real_time", 1, 2.5);
  compare("preload of ten times the rows / bare select *", Kind::Ratio, "preload/huge/real_time",
          "preloadBare/huge/real_time", 1, s_none);
  return true;
}();

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
