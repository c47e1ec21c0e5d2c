// Lookups of many threads on one store, while others change, count and open tables: each answer is
// the right one, whatever moves or leaves the caches meanwhile.
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "alias/AddressAliasDbMySQL.h"
#include "mask/AddressMaskMySQL.h"
#include "support/Duration.h"
#include "support/MapDatabase.h"

namespace Tessel {
namespace {

using Random = std::mt19937;
using Clock = std::chrono::steady_clock;

// Runs jobs in threads for some time, again and again, and keeps what went wrong first.
class Threads {
 public:
  // A job does one thing and gives what is wrong with it, or an empty text.
  using Job = std::function<std::string(Random&)>;

  void add(int count, const Job& job) {
    for (int i = 0; i < count; ++i) m_jobs.push_back(job);
  }

  void run(Clock::duration duration) {
    const Clock::time_point end = Clock::now() + duration;
    const unsigned int seed = std::random_device()();
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < m_jobs.size(); ++i) {
      threads.emplace_back([this, end, i, seed] { repeat(m_jobs[i], end, seed + i); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(m_wrong, 0) << "first: " << m_first << " (seed " << seed << ")";
    testing::Test::RecordProperty("done", std::to_string(m_done));
  }

 private:
  void repeat(const Job& job, Clock::time_point end, std::size_t seed) {
    Random random(static_cast<Random::result_type>(seed));
    do {
      const std::string fault = resultOf(job, random);
      ++m_done;
      if (!fault.empty() && m_wrong++ == 0) m_first = fault;
    } while (Clock::now() < end);
  }

  static std::string resultOf(const Job& job, Random& random) {
    try {
      return job(random);
    } catch (const std::exception& exception) {
      return exception.what();
    }
  }

  std::vector<Job> m_jobs;
  std::atomic<std::size_t> m_done = 0;
  std::atomic<int> m_wrong = 0;
  std::string m_first;  // Written by the first thread that finds something wrong, read after all.
};

class LookupThreads : public Testing::MapDatabase {
 protected:
  // Rows 0 to `count`, which stay.
  static void fillMasks(int count) {
    std::string values;
    for (int i = 0; i < count; ++i) {
      values += (i > 0 ? ",( '" : "( '") + inner(i).address() + "','" + outer(i).address() + "' )";
    }
    sql("insert into ts_address_map.mask values " + values);
  }
  static void fillAliases(int count) {
    std::string values;
    for (int i = 0; i < count; ++i) {
      values += (i > 0 ? ",( '" : "( '") + inner(i).address() + "','";
      AddressAliasDbMySQL::Members members = membersOf(i);
      for (const EmailAddress& member : members) values += member.address() + ",";
      values += "',0 )";
    }
    sql("insert into ts_address_map.alias values " + values);
  }

  static EmailAddress inner(int i) { return address("p" + std::to_string(i) + "@inner.example"); }
  static EmailAddress outer(int i) { return address("q" + std::to_string(i) + "@outer.example"); }
  static std::set<EmailAddress> membersOf(int i) {
    const std::string number = std::to_string(i);
    return addresses("anna" + number + "@d.example,berta" + number + "@d.example");
  }

  static int below(int count, Random& random) {
    return std::uniform_int_distribution<int>(0, count - 1)(random);
  }

  static std::string lookUpMask(const AddressMaskDb& table, int count, Random& random) {
    const int i = below(count, random);
    switch (random() % 16) {
      case 0:
        return table.findPublicAddress(outer(i)).isNull() ? "" : "found no private address";
      case 1:
        return table.findPrivateAddress(inner(i)).isNull() ? "" : "found no public address";
      default:
        break;
    }
    const bool forward = random() % 2 == 0;
    const EmailAddress got =
        forward ? table.findPublicAddress(inner(i)) : table.findPrivateAddress(outer(i));
    if (got == (forward ? outer(i) : inner(i))) return "";
    return (forward ? "public of pair " : "private of pair ") + std::to_string(i) + ": '" +
           got.address() + "'";
  }

  static std::string expand(const AddressAliasDb& table, int count, Random& random) {
    const int i = below(count, random);
    if (random() % 16 == 0) return table.expandAlias(outer(i)).empty() ? "" : "expanded no alias";
    const std::set<EmailAddress> got = table.expandAlias(inner(i));
    return got == membersOf(i) ? "" : "alias " + std::to_string(i);
  }

  // Adds and deletes rows that nobody looks up, counts the rows again, and opens tables. The count
  // is seldom one too high: lookups ask the table then, which hides what the cache does wrong.
  static std::string changeMasks(const AddressMapDb& store, Random& random) {
    auto& table = dynamic_cast<AddressMaskDbMySQL&>(*store.maskDb("").impl());
    const EmailAddress extra = address("extra" + std::to_string(random() % 4) + "@inner.example");
    table.queryAdd(extra, extra);
    if (random() % 16 == 0) table.exportToFile("/dev/null");
    table.queryDelete(extra, extra);
    table.exportToFile("/dev/null");
    std::map<EmailAddress, EmailAddress> entries;
    store.maskDb("t" + std::to_string(random() % 3)).findByMaskedDomain("*", entries);
    return "";
  }
  static std::string changeAliases(const AddressMapDb& store, Random& random) {
    auto& table = dynamic_cast<AddressAliasDbMySQL&>(*store.aliasDb("").impl());
    const EmailAddress extra = address("extra" + std::to_string(random() % 4) + "@inner.example");
    table.queryAdd(extra, membersOf(0));
    if (random() % 16 == 0) table.exportToFile("/dev/null");
    table.queryDelete(extra);
    table.exportToFile("/dev/null");
    std::set<EmailAddress> names;
    store.aliasDb("t" + std::to_string(random() % 3)).getAliasNames(names);
    return "";
  }

  static void makeOtherTables() {
    for (const char* name : {"t0", "t1", "t2"}) {
      sql("create table ts_address_map.mask_" + std::string(name) + " like ts_address_map.mask");
      sql("create table ts_address_map.alias_" + std::string(name) + " like ts_address_map.alias");
    }
  }

  // `readers` threads look up the pairs of a table of `count`, one changes it.
  static void lookUpMasks(int count, int readers) {
    fillMasks(count);
    makeOtherTables();
    const AddressMapDb store(AddressMapDb::MySQL, true);
    const AddressMaskDb table = store.maskDb("");
    Threads threads;
    threads.add(readers, [&](Random& random) { return lookUpMask(table, count, random); });
    threads.add(1, [&](Random& random) { return changeMasks(store, random); });
    threads.run(Testing::duration());
  }
};

TEST_F(LookupThreads, FiftyPairsAndTwoReaders) {
  lookUpMasks(50, 2);
}

TEST_F(LookupThreads, FiveHundredPairsAndFourReaders) {
  lookUpMasks(500, 4);
}

TEST_F(LookupThreads, AThousandPairsAndEightReaders) {
  lookUpMasks(1000, 8);
}

// More than the cache holds: each lookup in the table evicts a pair.
TEST_F(LookupThreads, FifteenHundredPairsAndEightReaders) {
  lookUpMasks(1500, 8);
}

TEST_F(LookupThreads, MoreAliasesThanTheCacheHoldsAndEightReaders) {
  constexpr int s_aliases = 400;
  fillAliases(s_aliases);
  makeOtherTables();
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  Threads threads;
  threads.add(8, [&](Random& random) { return expand(table, s_aliases, random); });
  threads.add(1, [&](Random& random) { return changeAliases(store, random); });
  threads.run(Testing::duration());
}

// The last row that a cache lacked is cached between another thread's look and its count.
TEST_F(LookupThreads, CachesThatAreCompletedMeanwhile) {
  constexpr int s_rows = 6;
  fillMasks(s_rows);
  fillAliases(s_rows);
  const Clock::time_point end = Clock::now() + Testing::duration();
  while (Clock::now() < end && !HasFailure()) {
    // The export counts the rows of the mask table, whose cache is empty without preload.
    const AddressMapDb masks(AddressMapDb::MySQL, false);
    const AddressMapDb aliases(AddressMapDb::MySQL, true);
    masks.maskDb("").exportToFile("/dev/null");
    const AddressMaskDb mask = masks.maskDb("");
    const AddressAliasDb alias = aliases.aliasDb("");
    Threads threads;
    threads.add(4, [&](Random& random) { return lookUpMask(mask, s_rows, random); });
    threads.add(4, [&](Random& random) { return expand(alias, s_rows, random); });
    threads.run(std::chrono::milliseconds(20));
  }
}

}  // namespace
}  // namespace Tessel
