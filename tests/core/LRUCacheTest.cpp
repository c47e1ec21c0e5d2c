// Tests of the LRU cache.
#include "core/LRUCache.h"

#include <chrono>
#include <future>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Layout.h"

namespace Tessel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Cache = LRUCache<std::string, int>;

// The keys in most-recent-first order.
std::vector<std::string> s_keys(Cache& cache) {
  std::vector<std::string> keys;
  for (auto entry = cache.begin(); entry != cache.end(); ++entry) keys.push_back(entry->first);
  return keys;
}

TEST(LRUCache, CapacityZeroKeepsNothing) {
  Cache cache(0);
  for (int i = 0; i < 10; ++i) cache.add("k" + std::to_string(i), i);
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_EQ(cache.begin(), cache.end());
}

TEST(LRUCache, TheOldestEntryMakesRoom) {
  Cache cache(2);
  cache.add("k1", 1);
  cache.add("k2", 2);
  cache.add("k3", 3);
  EXPECT_THAT(s_keys(cache), ElementsAre("k3", "k2"));
  EXPECT_EQ(cache.find("k1"), cache.end());
}

TEST(LRUCache, AHitProtectsAnEntryFromEviction) {
  Cache cache(2);
  cache.add("k1", 1);
  cache.add("k2", 2);
  ASSERT_NE(cache.find("k1"), cache.end());
  cache.add("k3", 3);
  EXPECT_THAT(s_keys(cache), ElementsAre("k3", "k1"));
}

TEST(LRUCache, TheFirstValueOfAKeyStays) {
  Cache cache(2);
  cache.add("k1", 1);
  cache.add("k2", 2);
  cache.add("k1", 100);
  EXPECT_THAT(s_keys(cache), ElementsAre("k2", "k1"));
  EXPECT_EQ(cache.find("k1")->second, 1);
}

TEST(LRUCache, AMissReturnsTheEndAndChangesNoOrder) {
  Cache cache(3);
  cache.add("k1", 1);
  cache.add("k2", 2);
  EXPECT_EQ(cache.find("other"), cache.end());
  EXPECT_THAT(s_keys(cache), ElementsAre("k2", "k1"));
}

TEST(LRUCache, AHitMovesTheEntryToTheFrontAndKeepsItsObject) {
  Cache cache(3);
  cache.add("k1", 1);
  const int* const value = &cache.find("k1")->second;
  cache.add("k2", 2);
  const auto found = cache.find("k1");
  EXPECT_EQ(found, cache.begin());
  EXPECT_EQ(&found->second, value);
}

TEST(LRUCache, RemoveTakesOutOneEntryOrNothing) {
  Cache cache(3);
  cache.add("k1", 1);
  cache.add("k2", 2);
  cache.remove("other");
  EXPECT_EQ(cache.size(), 2U);
  cache.remove("k1");
  EXPECT_EQ(cache.size(), 1U);
  EXPECT_THAT(s_keys(cache), ElementsAre("k2"));
}

TEST(LRUCache, ClearEmptiesAFullCacheThatWorksOn) {
  Cache cache(2);
  cache.add("k1", 1);
  cache.add("k2", 2);
  cache.clear();
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_THAT(s_keys(cache), IsEmpty());
  cache.add("k1", 10);
  EXPECT_EQ(cache.find("k1")->second, 10);
}

// A value whose copying can be made to throw.
struct Fragile {
  Fragile() = default;
  Fragile(const Fragile& /*other*/) {
    if (s_throw) throw std::runtime_error("copy");
  }
  Fragile& operator=(const Fragile&) = default;
  static inline bool s_throw = false;
};

TEST(LRUCache, AFailedCopyLeavesTheCacheAsItWasAndReleasesTheLock) {
  LRUCache<int, Fragile> cache(2);
  cache.add(1, Fragile());
  Fragile::s_throw = true;
  EXPECT_THROW(cache.add(2, Fragile()), std::runtime_error);
  Fragile::s_throw = false;
  EXPECT_EQ(cache.size(), 1U);
  EXPECT_EQ(cache.find(2), cache.end());
  cache.add(2, Fragile());
  EXPECT_EQ(cache.size(), 2U);
}

// A key whose second copy, the one for the index, can be made to throw.
struct FragileKey {
  explicit FragileKey(int number) : m_number(number) {}
  FragileKey(const FragileKey& other) : m_number(other.m_number) {
    if (s_copiesLeft-- == 0) throw std::runtime_error("copy");
  }
  FragileKey& operator=(const FragileKey&) = default;
  bool operator<(const FragileKey& other) const { return m_number < other.m_number; }
  int m_number;
  static inline int s_copiesLeft = 1000000;
};

TEST(LRUCache, CapacityZeroCopiesWhatItDoesNotKeep) {
  LRUCache<int, Fragile> cache(0);
  Fragile::s_throw = true;
  EXPECT_THROW(cache.add(1, Fragile()), std::runtime_error);
  Fragile::s_throw = false;
  EXPECT_EQ(cache.size(), 0U);
}

TEST(LRUCache, AFailedIndexNodeTakesTheListEntryWithIt) {
  LRUCache<FragileKey, int> cache(2);
  FragileKey::s_copiesLeft = 1;
  EXPECT_THROW(cache.add(FragileKey(1), 1), std::runtime_error);
  FragileKey::s_copiesLeft = 1000000;
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_EQ(cache.begin(), cache.end());
}

TEST(LRUCache, AgreesWithASimpleModelOverRandomOperations) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Cache cache(5);
  std::vector<std::pair<std::string, int>> model;  // Most recent first.
  const auto position = [&model](const std::string& key) {
    return std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
  };
  for (int step = 0; step < 5000; ++step) {
    const std::string key(1, static_cast<char>('a' + random() % 10));
    const auto at = position(key);
    switch (random() % 3) {
      case 0:
        cache.add(key, step);
        if (at == model.end()) model.insert(model.begin(), {key, step});
        if (model.size() > 5) model.pop_back();
        break;
      case 1:
        ASSERT_EQ(cache.find(key) != cache.end(), at != model.end());
        if (at != model.end()) std::rotate(model.begin(), at, at + 1);
        break;
      default:
        cache.remove(key);
        if (at != model.end()) model.erase(at);
    }
    std::vector<std::pair<std::string, int>> got(cache.begin(), cache.end());
    ASSERT_EQ(got, model) << "step " << step;
    ASSERT_EQ(cache.size(), model.size());
  }
}

TEST(LRUCache, ManyThreadsMayUseItAtOnce) {
  Cache cache(16);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&cache, t] {
      for (int n = 0; n < 2000; ++n) {
        const std::string key = std::to_string((n * 7 + t) % 40);
        cache.add(key, n);
        static_cast<void>(cache.find(key));
        if (n % 5 == 0) cache.remove(key);
        if (n % 500 == 0) cache.clear();
        static_cast<void>(cache.begin());
        EXPECT_LE(cache.size(), 16U);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(cache.size(), 16U);
}

// Counts which virtual operations the locking ones call.
class CountingCache : public Cache {
 public:
  using Cache::Cache;
  iterator findNoLock(const std::string& key) const override {
    ++m_finds;
    return Cache::findNoLock(key);
  }
  void addNoLock(const std::string& key, const int& value) override {
    ++m_adds;
    Cache::addNoLock(key, value);
  }
  mutable int m_finds = 0;
  int m_adds = 0;
};

TEST(LRUCache, TheLockingOperationsCallTheOthersThroughTheVirtualTable) {
  for (const unsigned int capacity : {0U, 2U}) {
    CountingCache cache(capacity);
    cache.add("k1", 1);
    static_cast<void>(cache.find("k1"));
    EXPECT_EQ(cache.m_adds, 1);
    EXPECT_EQ(cache.m_finds, 1);
    static_cast<void>(cache.copyOf("k1"));
    EXPECT_EQ(cache.m_finds, 2);
  }
}

// Looks, while it adds, whether another thread gets the lock.
class LockedCache : public Cache {
 public:
  using Cache::Cache;
  void addNoLock(const std::string& key, const int& value) override {
    m_other = std::async(std::launch::async, [this] { return size(); });
    EXPECT_EQ(m_other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    Cache::addNoLock(key, value);
  }
  std::future<unsigned int> m_other;
};

TEST(LRUCache, AddHoldsTheLockWhateverTheCapacity) {
  for (const unsigned int capacity : {0U, 2U}) {
    LockedCache cache(capacity);
    cache.add("k1", 1);
    EXPECT_EQ(cache.m_other.get(), capacity == 0 ? 0U : 1U);
  }
}

TEST(LRUCacheLayout, VirtualOperationsStandInTheirSlots) {
  static_assert(std::is_polymorphic_v<Cache>);
  static_assert(std::has_virtual_destructor_v<Cache>);
  EXPECT_EQ(Testing::virtualSlot(&Cache::clear), 2);
  EXPECT_EQ(Testing::virtualSlot(&Cache::findNoLock), 3);
  EXPECT_EQ(Testing::virtualSlot(&Cache::find), 4);
  EXPECT_EQ(Testing::virtualSlot(&Cache::addNoLock), 5);
  EXPECT_EQ(Testing::virtualSlot(&Cache::add), 6);
  EXPECT_EQ(Testing::virtualSlot(&Cache::remove), 7);
  EXPECT_EQ(Testing::virtualSlot(&Cache::removeNoLock), -1);
  EXPECT_EQ(Testing::virtualSlot(&Cache::size), -1);
  EXPECT_EQ(Testing::virtualSlot(&Cache::begin), -1);
}

}  // namespace
}  // namespace Tessel
