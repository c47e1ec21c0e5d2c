// The all-users marker: the expansion of a large domain against the making of its set's nodes.
#include <set>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "AddressMapDb.h"
#include "BenchDatabase.h"
#include "Rounds.h"
#include "alias/AddressAliasDbMySQL.h"
#include "map/AddressMapMySQL.h"

namespace Tessel::Bench {
namespace {

// Nanoseconds.
constexpr double s_mostOfUser = 150;

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

// Beyond making the nodes of the same set alone, from finished addresses in order.
void allUsersExpansion(benchmark::State& state) {
  const AddressAliasDb table = s_store().aliasDb("users");
  const EmailAddress everyone = s_everyone();
  const std::set<EmailAddress> users = table.expandAlias(everyone);
  const std::vector<EmailAddress> addresses(users.begin(), users.end());
  const auto ours = [&](std::size_t) {
    require(table.expandAlias(everyone).size() == static_cast<std::size_t>(sizes().users));
  };
  const auto bare = [&](std::size_t) {
    std::set<EmailAddress> nodes;
    for (const EmailAddress& address : addresses) nodes.insert(nodes.end(), address);
    benchmark::DoNotOptimize(&nodes);
  };
  compare(state,
          {"all-users expansion, a user beyond the set's node", s_mostOfUser, Kind::ExtraPerItem,
           static_cast<double>(sizes().users)},
          timed(Clock::Own, ours), timed(Clock::Own, bare));
}

BENCHMARK(allUsersExpansion)->Apply(inRounds);

}  // namespace
}  // namespace Tessel::Bench
