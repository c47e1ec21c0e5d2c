// The all-users marker: the expansion of a large domain against the making of its set's nodes.
#include <set>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "AddressMapDb.h"
#include "BenchDatabase.h"
#include "Ratios.h"
#include "alias/AddressAliasDbMySQL.h"
#include "map/AddressMapMySQL.h"

namespace Tessel::Bench {
namespace {

EmailAddress s_everyone() {
  return EmailAddress::rfc5321Parse("everyone@users.example", false);
}

// A store with the marker of the large domain in its cache.
AddressMapDb& s_store() {
  static AddressMapDb s_opened = [] {
    fillUsers(sizes().users);
    fillAliasTable("alias_users", 1);
    const AddressMapDb writer(AddressMapDb::MySQL, false);
    static_cast<AddressAliasDbMySQL*>(writer.aliasDb("users").impl())
        ->queryAdd(s_everyone(),
                   EmailAddress::rfc5322ParseSet("allusers_users.example", true, false));
    AddressMapDb store(AddressMapDb::MySQL, true);
    static_cast<void>(store.aliasDb("users").expandAlias(s_everyone()));
    return store;
  }();
  return s_opened;
}

void allUsersExpansion(benchmark::State& state) {
  const AddressAliasDb table = s_store().aliasDb("users");
  const EmailAddress everyone = s_everyone();
  for (auto _ : state) {
    const std::set<EmailAddress> users = table.expandAlias(everyone);
    if (users.size() != static_cast<std::size_t>(sizes().users)) {
      state.SkipWithError("users are missing");
    }
  }
}

// The nodes of the same set alone, made from finished addresses in order.
void allUsersNodes(benchmark::State& state) {
  const std::set<EmailAddress> users = s_store().aliasDb("users").expandAlias(s_everyone());
  const std::vector<EmailAddress> addresses(users.begin(), users.end());
  for (auto _ : state) {
    std::set<EmailAddress> nodes;
    for (const EmailAddress& address : addresses) nodes.insert(nodes.end(), address);
    benchmark::DoNotOptimize(&nodes);
  }
}

BENCHMARK(allUsersExpansion)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(allUsersNodes)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

void compareAllUsers() {
  compare("all-users expansion, a user beyond the set's node", Kind::ExtraPerItem,
          "allUsersExpansion/real_time", "allUsersNodes/real_time", sizes().users, 150);
}

}  // namespace Tessel::Bench
