// Tests of the registry of tables. This source is compiled without access control, for its locks.
#include "map/AddressMapDbImpl.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/thread/lock_types.hpp>

#include "AddressMapDb.h"
#include "map/FakeStore.h"
#include "support/Caught.h"
#include "support/MapDatabase.h"

namespace Tessel {
namespace {

using Testing::FakeStore;
using Testing::handleOver;
using Testing::StoreEvents;

TEST(AddressMapDbImpl, ATableIsMadeOnceAndSharedByItsName) {
  StoreEvents events;
  const AddressMapDb store = handleOver(new FakeStore(events));
  EXPECT_EQ(store.aliasDb("x").impl(), store.aliasDb("x").impl());
  EXPECT_EQ(store.maskDb("x").impl(), store.maskDb("x").impl());
  EXPECT_EQ(events.aliasTablesMade, 1);
  EXPECT_EQ(events.maskTablesMade, 1);
}

TEST(AddressMapDbImpl, NamesThatDifferInLetterCaseAreTwoTables) {
  StoreEvents events;
  const AddressMapDb store = handleOver(new FakeStore(events));
  EXPECT_NE(store.aliasDb("Sales").impl(), store.aliasDb("sales").impl());
  EXPECT_NE(store.maskDb("Sales").impl(), store.maskDb("sales").impl());
}

TEST(AddressMapDbImpl, NamesAreTakenAsTheyStand) {
  StoreEvents events;
  const AddressMapDb store = handleOver(new FakeStore(events));
  EXPECT_NE(store.aliasDb("x").impl(), store.aliasDb(" x").impl());
  EXPECT_NE(store.aliasDb("x").impl(), store.aliasDb("").impl());
}

TEST(AddressMapDbImpl, AFailedCreationLeavesNothingBehindAndIsTriedAgain) {
  StoreEvents events;
  const AddressMapDb store = handleOver(new FakeStore(events));
  EXPECT_EQ(Testing::caught([&] { static_cast<void>(store.aliasDb("throw")); }).context(),
            "preload");
  EXPECT_EQ(Testing::caught([&] { static_cast<void>(store.aliasDb("throw")); }).context(),
            "preload");
  EXPECT_EQ(events.aliasTablesMade, 2);
  // The registry is not left locked.
  EXPECT_NE(store.aliasDb("x").impl(), nullptr);
}

// A store that looks at its locks, from another thread, while it makes a table.
class WatchingStore : public FakeStore {
 public:
  using FakeStore::FakeStore;

  AddressMaskDbImpl* createMaskDbImpl(const std::string& name) override {
    m_free.push_back(canShare(m_maskDbsMutex));
    m_otherFree.push_back(canShare(m_aliasDbsMutex));
    return FakeStore::createMaskDbImpl(name);
  }
  AddressAliasDbImpl* createAliasDbImpl(const std::string& name) override {
    m_free.push_back(canShare(m_aliasDbsMutex));
    m_otherFree.push_back(canShare(m_maskDbsMutex));
    return FakeStore::createAliasDbImpl(name);
  }
  std::vector<bool> m_free;
  std::vector<bool> m_otherFree;

 private:
  static bool canShare(boost::shared_mutex& mutex) {
    bool taken = false;
    std::thread([&] {
      taken = mutex.try_lock_shared();
      if (taken) mutex.unlock_shared();
    }).join();
    return taken;
  }
};

TEST(AddressMapDbImpl, ATableIsMadeUnderTheExclusiveLockOfItsOwnRegistry) {
  StoreEvents events;
  WatchingStore store(events);
  static_cast<void>(store.maskDb("m"));
  static_cast<void>(store.aliasDb("a"));
  EXPECT_THAT(store.m_free, testing::ElementsAre(false, false));
  EXPECT_THAT(store.m_otherFree, testing::ElementsAre(true, true));
}

TEST(AddressMapDbImpl, AHitNeedsTheSharedLockOnly) {
  StoreEvents events;
  FakeStore store(events);
  static_cast<void>(store.maskDb("m"));
  static_cast<void>(store.aliasDb("a"));
  EXPECT_TRUE(Testing::endsInSpiteOf(boost::shared_lock<boost::shared_mutex>(store.m_maskDbsMutex),
                                     [&] { static_cast<void>(store.maskDb("m")); }));
  EXPECT_TRUE(Testing::endsInSpiteOf(boost::shared_lock<boost::shared_mutex>(store.m_aliasDbsMutex),
                                     [&] { static_cast<void>(store.aliasDb("a")); }));
}

TEST(AddressMapDbImpl, TheTwoRegistriesNeverWaitForEachOther) {
  StoreEvents events;
  FakeStore store(events);
  EXPECT_TRUE(Testing::endsInSpiteOf(
      boost::unique_lock<boost::shared_mutex>(store.m_maskDbsMutex),
      [&] { EXPECT_EQ(store.aliasDb("a").impl(), store.aliasDb("a").impl()); }));
  EXPECT_TRUE(Testing::endsInSpiteOf(
      boost::unique_lock<boost::shared_mutex>(store.m_aliasDbsMutex),
      [&] { EXPECT_EQ(store.maskDb("m").impl(), store.maskDb("m").impl()); }));
  EXPECT_EQ(events.aliasTablesMade, 1);
  EXPECT_EQ(events.maskTablesMade, 1);
}

TEST(AddressMapDbImpl, TheTablesGoWithTheLastCopyOfTheStore) {
  StoreEvents events;
  {
    AddressMapDb store = handleOver(new FakeStore(events));
    static_cast<void>(store.aliasDb("a"));
    static_cast<void>(store.maskDb("m"));
    const AddressMapDb copy(store);
    store = AddressMapDb();
    EXPECT_EQ(events.storesDestroyed, 0);
    EXPECT_EQ(events.tablesDestroyed, 0);
  }
  EXPECT_EQ(events.storesDestroyed, 1);
  EXPECT_EQ(events.tablesDestroyed, 2);
}

TEST(AddressMapDbImpl, AHeldTableHandleKeepsItsTableBeyondTheStore) {
  StoreEvents events;
  {
    AddressAliasDb held;
    {
      const AddressMapDb store = handleOver(new FakeStore(events));
      held = store.aliasDb("a");
      static_cast<void>(store.aliasDb("b"));
    }
    EXPECT_EQ(events.storesDestroyed, 1);
    EXPECT_EQ(events.tablesDestroyed, 1);
  }
  EXPECT_EQ(events.tablesDestroyed, 2);
}

TEST(AddressMapDbImpl, ManyThreadsThatAskForOneNewNameShareOneTable) {
  for (int round = 0; round < 50; ++round) {
    StoreEvents events;
    const AddressMapDb store = handleOver(new FakeStore(events));
    std::vector<std::thread> threads;
    std::vector<AddressAliasDb> aliases(8);
    std::vector<AddressMaskDb> masks(8);
    std::atomic<bool> go{false};
    for (std::size_t i = 0; i < aliases.size(); ++i) {
      threads.emplace_back([&, i] {
        while (!go) std::this_thread::yield();
        aliases[i] = store.aliasDb("new");
        masks[i] = store.maskDb("new");
      });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 1; i < aliases.size(); ++i) {
      EXPECT_EQ(aliases[i].impl(), aliases[0].impl());
      EXPECT_EQ(masks[i].impl(), masks[0].impl());
    }
    EXPECT_EQ(events.aliasTablesMade, 1);
    EXPECT_EQ(events.maskTablesMade, 1);
  }
}

TEST(AddressMapDbImpl, ManyThreadsMayAskForManyNames) {
  StoreEvents events;
  const AddressMapDb store = handleOver(new FakeStore(events));
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&store, t] {
      for (int n = 0; n < 500; ++n) {
        const std::string name = std::to_string((n + t) % 50);
        const AddressMapDb copy(store);
        EXPECT_NE(copy.aliasDb(name).impl(), nullptr);
        EXPECT_NE(copy.maskDb(name).impl(), nullptr);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(events.aliasTablesMade, 50);
  EXPECT_EQ(events.maskTablesMade, 50);
}

}  // namespace
}  // namespace Tessel
