// Mask tables: hits of both directions against the bare containers, and the asking of the table
// against the bare statement.
#include <algorithm>
#include <limits>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "AddressMapDb.h"
#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Ratios.h"

namespace Tessel::Bench {
namespace {

// Pairs in the small table: as many as the cache holds.
constexpr int s_cached = 1024;
// Wildcard rows, each for a domain of its own.
constexpr int s_wildcards = 100;

std::vector<EmailAddress> s_addresses(std::string (*text)(int), int count) {
  std::vector<EmailAddress> addresses;
  addresses.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) addresses.push_back(EmailAddress::rfc5321Parse(text(i), false));
  return addresses;
}

// A table of `rows` pairs, all of them in its cache.
AddressMaskDb s_cachedTable(int rows) {
  const std::string name = "cached" + std::to_string(rows);
  fillMaskTable("mask_" + name, rows);
  static const AddressMapDb s_store(AddressMapDb::MySQL, true);
  return s_store.maskDb(name);
}

void maskForwardHit(benchmark::State& state) {
  const AddressMaskDb table = s_cachedTable(s_cached);
  const std::vector<EmailAddress> addresses = s_addresses(maskPrivate, s_cached);
  auto next = static_cast<std::size_t>(state.thread_index()) * 101;
  for (auto _ : state) {
    const EmailAddress found = table.findPublicAddress(addresses[next++ % s_cached]);
    if (found.isNull()) state.SkipWithError("the address was not found");
    benchmark::DoNotOptimize(&found);
  }
}

// What a cached pair cannot do without: map, list, lock and the copy of a string.
struct BareCache {
  using Entry = std::pair<std::string, std::string>;
  boost::shared_mutex mutex;
  std::list<Entry> recent;
  std::map<std::string, std::list<Entry>::iterator> index;

  explicit BareCache(int entries) {
    for (int i = 0; i < entries; ++i) {
      recent.emplace_front(maskPrivate(i), maskPublic(i));
      index[maskPrivate(i)] = recent.begin();
    }
  }

  std::list<Entry>::iterator find(const std::string& key) {
    const boost::unique_lock<boost::shared_mutex> lock(mutex);
    const auto node = index.find(key);
    recent.splice(recent.begin(), recent, node->second);
    return recent.begin();
  }
};

void maskForwardBareContainers(benchmark::State& state) {
  static BareCache s_cache(s_cached);
  std::vector<std::string> names;
  names.reserve(s_cached);
  for (int i = 0; i < s_cached; ++i) names.push_back(maskPrivate(i));
  auto next = static_cast<std::size_t>(state.thread_index()) * 101;
  for (auto _ : state) {
    const std::string found = s_cache.find(names[next++ % s_cached])->second;
    benchmark::DoNotOptimize(&found);
  }
}

BENCHMARK(maskForwardHit)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(maskForwardBareContainers)->Threads(1)->Threads(2)->UseRealTime();

// Every pair of the cache in turn, so a walk goes half way on average.
void maskReverseHit(benchmark::State& state) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  const AddressMaskDb table = s_cachedTable(static_cast<int>(rows));
  const std::vector<EmailAddress> addresses = s_addresses(maskPublic, static_cast<int>(rows));
  std::size_t next = 0;
  for (auto _ : state) {
    const EmailAddress found = table.findPrivateAddress(addresses[next++ % rows]);
    if (found.isNull()) state.SkipWithError("the address was not found");
    benchmark::DoNotOptimize(&found);
  }
}

void maskReverseBareWalk(benchmark::State& state) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  const BareCache cache(static_cast<int>(rows));
  std::vector<std::string> names;
  names.reserve(rows);
  for (int i = 0; i < static_cast<int>(rows); ++i) names.push_back(maskPublic(i));
  std::size_t next = 0;
  for (auto _ : state) {
    const std::string& name = names[next++ % rows];
    const auto entry = std::find_if(cache.recent.begin(), cache.recent.end(),
                                    [&name](const auto& pair) { return pair.second == name; });
    const std::string found = entry->first;
    benchmark::DoNotOptimize(&found);
  }
}

BENCHMARK(maskReverseHit)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(maskReverseBareWalk)->Arg(10)->Arg(100)->Arg(1000);

// An address that is in no row of a table with more rows than the cache holds: one statement. One
// that is in a row would be cached by it.
void maskUncached(benchmark::State& state, bool forward) {
  fillMaskTable("mask_large", sizes().rows + s_cached);
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressMaskDb table = store.maskDb("large");
  const EmailAddress unknown = EmailAddress::rfc5321Parse("unknown@bench.example", false);
  const OneCore pinned;
  for (auto _ : state) {
    benchmark::DoNotOptimize(forward ? table.findPublicAddress(unknown)
                                     : table.findPrivateAddress(unknown));
  }
}

void maskUncachedBare(benchmark::State& state, const std::string& column) {
  fillMaskTable("mask_large", sizes().rows + s_cached);
  BareConnection connection("ts_address_map");
  const std::string name = "unknown@bench.example";
  const OneCore pinned;
  for (auto _ : state) {
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from mask_large where " + column +
                                                      " ='" + connection.escaped(name) + "';"));
  }
}

BENCHMARK_CAPTURE(maskUncached, forward, true)->UseRealTime();
BENCHMARK_CAPTURE(maskUncached, reverse, false)->UseRealTime();
BENCHMARK_CAPTURE(maskUncachedBare, forward, "private")->UseRealTime();
BENCHMARK_CAPTURE(maskUncachedBare, reverse, "public")->UseRealTime();

// A wildcard row, met after a miss in an empty cache of a table without plain rows.
void maskWildcardHit(benchmark::State& state) {
  static const AddressMapDb s_store = [] {
    fillWildcardTable("mask_wildcards", s_wildcards);
    return AddressMapDb(AddressMapDb::MySQL, true);
  }();
  const AddressMaskDb table = s_store.maskDb("wildcards");
  const std::vector<EmailAddress> addresses =
      s_addresses([](int i) { return "someone@" + privateDomain(i); }, s_wildcards);
  std::size_t next = 0;
  for (auto _ : state) {
    const EmailAddress found = table.findPublicAddress(addresses[next++ % s_wildcards]);
    if (found.isNull()) state.SkipWithError("the address was not found");
    benchmark::DoNotOptimize(&found);
  }
}

// Find and join, with the local part and the domain given as they are.
void maskWildcardBareMap(benchmark::State& state) {
  std::map<std::string, std::string> domains;
  std::vector<std::string> names;
  for (int i = 0; i < s_wildcards; ++i) {
    domains[privateDomain(i)] = publicDomain(i);
    names.push_back(privateDomain(i));
  }
  const std::string local = "someone";
  std::size_t next = 0;
  for (auto _ : state) {
    const std::string found = local + "@" + domains.find(names[next++ % s_wildcards])->second;
    benchmark::DoNotOptimize(&found);
  }
}

BENCHMARK(maskWildcardHit);
BENCHMARK(maskWildcardBareMap);

const bool s_compared = [] {
  constexpr double s_none = std::numeric_limits<double>::infinity();
  compare("mask forward hit / bare containers, 1 thread", Kind::Ratio,
          "maskForwardHit/real_time/threads:1", "maskForwardBareContainers/real_time/threads:1", 1,
          1.5);
  compare("mask forward hit / bare containers, 2 threads", Kind::Ratio,
          "maskForwardHit/real_time/threads:2", "maskForwardBareContainers/real_time/threads:2", 1,
          1.5);
  for (const char* rows : {"10", "100", "1000"}) {
    compare("mask reverse hit / bare walk, " + std::string(rows) + " entries", Kind::Ratio,
            "maskReverseHit/" + std::string(rows), "maskReverseBareWalk/" + std::string(rows), 1,
            s_none);
  }
  compare("mask forward lookup / bare statement, no row", Kind::Ratio,
          "maskUncached/forward/real_time", "maskUncachedBare/forward/real_time", 1, 1.2);
  // Before it asks, a reverse lookup walks the full cache, which the bare statement does not.
  compare("mask reverse lookup / bare statement, no row", Kind::Ratio,
          "maskUncached/reverse/real_time", "maskUncachedBare/reverse/real_time", 1, s_none);
  compare("mask wildcard hit / bare map and join", Kind::Ratio, "maskWildcardHit",
          "maskWildcardBareMap", 1, s_none);
  return true;
}();

}  // namespace
}  // namespace Tessel::Bench
