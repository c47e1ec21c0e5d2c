// Mask tables: hits of both directions against the bare containers, and the asking of the table
// against the bare statement.
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "AddressMapDb.h"
#include "BareCache.h"
#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Rounds.h"
#include "core/LRUCache.h"
#include "map/AddressMapMySQL.h"
#include "mask/AddressMaskMySQL.h"

namespace Tessel::Bench {
namespace {

// Pairs in the small table: as many as the cache holds.
constexpr int s_cached = 1024;
// Wildcard rows, each for a domain of its own.
constexpr int s_wildcards = 100;
// Limit of a reverse walk.
constexpr double s_mostOfWalk = 1.15;

std::vector<EmailAddress> s_addresses(std::string (*text)(int), int count) {
  std::vector<EmailAddress> addresses;
  addresses.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) addresses.push_back(EmailAddress::rfc5321Parse(text(i), false));
  return addresses;
}

// A table of `rows` pairs, all of them in its cache, and the store that it needs.
struct CachedTable {
  explicit CachedTable(int rows) {
    const std::string name = "cached" + std::to_string(rows);
    fillMaskTable("mask_" + name, rows);
    store = AddressMapDb(AddressMapDb::MySQL, true);
    table = store.maskDb(name);
  }
  AddressMapDb store;
  AddressMaskDb table;
};

// A forward hit of a store of its own, whose cache holds every pair of a table.
auto s_forwardHit() {
  const CachedTable cached(s_cached);
  const std::vector<EmailAddress> addresses = s_addresses(maskPrivate, s_cached);
  return [cached, addresses](std::size_t i) {
    const EmailAddress found = cached.table.findPublicAddress(addresses[scattered(i, s_cached)]);
    require(!found.isNull());
    benchmark::DoNotOptimize(&found);
  };
}

// What it cannot do without: map, list, lock and the copy of a string.
auto s_bareForwardHit() {
  const auto cache = std::make_shared<BareCache<std::string, std::string>>();
  std::vector<std::string> names;
  for (int i = 0; i < s_cached; ++i) {
    names.push_back(maskPrivate(i));
    cache->add(names.back(), maskPublic(i));
  }
  return [cache, names](std::size_t i) {
    const std::string found = cache->find(names[scattered(i, s_cached)])->second;
    require(!found.empty());
    benchmark::DoNotOptimize(&found);
  };
}

void maskForwardHit(benchmark::State& state) {
  compareHits(state, "mask forward hit / bare containers", &s_forwardHit, &s_bareForwardHit);
}

BENCHMARK(maskForwardHit)->Arg(1)->Arg(2)->Apply(inRounds);

// A table whose reverse lookup walks over its cached pairs without regard for other threads: an
// entry that one of them moves is missed, one that it takes out is read after its end.
class UnheedingTable final : public AddressMaskDbMySQL {
 public:
  using AddressMaskDbMySQL::AddressMaskDbMySQL;
  void add(const EmailAddress& privateAddress, const EmailAddress& publicAddress) {
    m_pairs.add(privateAddress, publicAddress);
  }
  [[nodiscard]] EmailAddress findPrivateAddress(const EmailAddress& address) const override {
    for (auto pair = m_pairs.begin(); pair != m_pairs.end(); ++pair) {
      if (pair->second == address) return pair->first;
    }
    return {};
  }

 private:
  mutable LRUCache<EmailAddress, EmailAddress> m_pairs{s_cached};
};

// Every pair of the cache, so a walk goes half way on average.
void maskReverseHit(benchmark::State& state) {
  const auto rows = static_cast<int>(state.range(0));
  const std::vector<EmailAddress> publics = s_addresses(maskPublic, rows);
  const std::string name = "cached" + std::to_string(rows);
  fillMaskTable("mask_" + name, rows);
  AddressMapDbMySQL store(true);
  const auto lookup = [&publics](std::shared_ptr<AddressMaskDbImpl> table) {
    return timed(Clock::Own, [&publics, table = std::move(table)](std::size_t i) {
      const EmailAddress found = table->findPrivateAddress(publics[scattered(i, publics.size())]);
      require(!found.isNull());
      benchmark::DoNotOptimize(&found);
    });
  };
  std::vector<Sides> sides;
  while (sides.size() < s_caches) {
    auto unheeding = std::make_shared<UnheedingTable>(store, false, name);
    for (int row = 0; row < rows; ++row) {
      unheeding->add(EmailAddress::rfc5321Parse(maskPrivate(row), false),
                     publics[static_cast<std::size_t>(row)]);
    }
    sides.push_back({lookup(std::make_shared<AddressMaskDbMySQL>(store, true, name)),
                     lookup(std::move(unheeding))});
  }
  compare(
      state,
      {"mask reverse hit / walk that heeds no other thread, " + std::to_string(rows) + " entries",
       s_mostOfWalk},
      sides);
}

BENCHMARK(maskReverseHit)->Arg(10)->Arg(100)->Arg(1000)->Apply(inRounds);

constexpr char s_large[] = "mask_large";

void maskStatement(benchmark::State& state, const Comparison& comparison, bool forward,
                   bool known) {
  fillMaskTable(s_large, sizes().rows + s_cached);
  AddressMapDbMySQL store(true);
  const AddressMaskDbMySQL table(store, true, "large");
  // One that is in a row would be cached: asks for the row itself.
  const std::string key = !known    ? "unknown@bench.example"
                          : forward ? maskPrivate(7)
                                    : maskPublic(7);
  const EmailAddress address = EmailAddress::rfc5321Parse(key, false);
  const auto lookup = [&] {
    EmailAddress found;
    if (known)
      found = forward ? table.queryPublicAddress(address) : table.queryPrivateAddress(address);
    else
      found = forward ? table.findPublicAddress(address) : table.findPrivateAddress(address);
    require(found.isNull() != known);
  };
  compareStatement(state, comparison, lookup, {s_large, forward ? "private" : "public", key});
}

BENCHMARK_CAPTURE(maskStatement, forward,
                  Comparison{"mask forward lookup / bare statement, no row", s_mostOfStatement},
                  true, false)
    ->Apply(inRounds);
BENCHMARK_CAPTURE(maskStatement, forwardRow,
                  Comparison{"mask queryPublicAddress / bare statement, one row",
                             s_mostOfStatement},
                  true, true)
    ->Apply(inRounds);
// Before it asks, a reverse lookup walks the full cache, which the bare statement does not.
BENCHMARK_CAPTURE(maskStatement, reverse,
                  Comparison{"mask reverse lookup / bare statement, no row", s_noLimit}, false,
                  false)
    ->Apply(inRounds);

// A wildcard row, met after a miss in an empty cache of a table without plain rows, against find
// and join, with the local part and the domain given as they are.
void maskWildcardHit(benchmark::State& state) {
  static const AddressMapDb s_store = [] {
    fillWildcardTable("mask_wildcards", s_wildcards);
    return AddressMapDb(AddressMapDb::MySQL, true);
  }();
  const AddressMaskDb table = s_store.maskDb("wildcards");
  const std::vector<EmailAddress> addresses =
      s_addresses([](int i) { return "someone@" + privateDomain(i); }, s_wildcards);
  std::map<std::string, std::string> domains;
  std::vector<std::string> names;
  for (int i = 0; i < s_wildcards; ++i) {
    domains[privateDomain(i)] = publicDomain(i);
    names.push_back(privateDomain(i));
  }
  const std::string local = "someone";
  const auto ours = [&](std::size_t i) {
    const EmailAddress found = table.findPublicAddress(addresses[scattered(i, s_wildcards)]);
    require(!found.isNull());
    benchmark::DoNotOptimize(&found);
  };
  const auto bare = [&](std::size_t i) {
    const std::string found = local + "@" + domains.find(names[scattered(i, s_wildcards)])->second;
    benchmark::DoNotOptimize(&found);
  };
  compare(state, {"mask wildcard hit / bare map and join"}, timed(Clock::Own, ours),
          timed(Clock::Own, bare));
}

BENCHMARK(maskWildcardHit)->Apply(inRounds);

}  // namespace
}  // namespace Tessel::Bench
