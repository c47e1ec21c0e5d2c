// Tests of the lookups of an address-mask table: cache, table and wildcards, in this order, and
// what they do when one of them fails.
// This source is compiled without access control, for the lock in the cache.
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/thread/lock_types.hpp>

#include "mask/MaskTable.h"
#include "support/Caught.h"
#include "support/StatementHook.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::ElementsAre;
using Testing::expectFacts;
using testing::IsEmpty;

class AddressMaskMySQLLookup : public Testing::MaskTable {
 protected:
  void hideTable() { sql("rename table ts_address_map.mask to ts_address_map.mask_hidden"); }
  void showTable() { sql("rename table ts_address_map.mask_hidden to ts_address_map.mask"); }

  void expectFreeMutex() { EXPECT_TRUE(Testing::isFree(m_store->mutex())); }
};

TEST_F(AddressMaskMySQLLookup, WithoutPreloadNothingIsAskedAndNothingFound) {
  addMask("p@d.example", "q@e.example");
  addMask("*@a.example", "*@b.example");
  const auto table = open(false);
  EXPECT_THAT(statementsOf([&] {
                EXPECT_TRUE(table->findPublicAddress(address("p@d.example")).isNull());
                EXPECT_TRUE(table->findPrivateAddress(address("q@e.example")).isNull());
                EXPECT_TRUE(table->findPublicAddress(address("l@a.example")).isNull());
                EXPECT_TRUE(table->findPrivateAddress(address("l@b.example")).isNull());
              }),
              IsEmpty());
}

TEST_F(AddressMaskMySQLLookup, AnEmptyTableIsNotAsked) {
  const auto table = open(true);
  EXPECT_EQ(statementCount([&] {
              EXPECT_TRUE(table->findPublicAddress(inner(0)).isNull());
              EXPECT_TRUE(table->findPrivateAddress(outer(0)).isNull());
            }),
            0U);
}

TEST_F(AddressMaskMySQLLookup, ACompleteCacheAnswersAloneUntilAnExportCountsAnew) {
  addPairs(0, 10);
  const auto table = open(true);
  table->queryAdd(inner(10), outer(10));
  EXPECT_EQ(statementCount([&] {
              for (int i = 0; i < 10; ++i) {
                EXPECT_EQ(table->findPublicAddress(inner(i)), outer(i));
                EXPECT_EQ(table->findPrivateAddress(outer(i)), inner(i));
              }
              EXPECT_TRUE(table->findPublicAddress(inner(10)).isNull());
              EXPECT_TRUE(table->findPrivateAddress(outer(10)).isNull());
            }),
            0U);
  table->exportToFile("/dev/null");
  EXPECT_THAT(statementsOf([&] { EXPECT_EQ(table->findPrivateAddress(outer(10)), inner(10)); }),
              ElementsAre("select * from mask where public ='q0010@e.example'"));
  // It is cached under its private address now, and the cache is complete again.
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(inner(10)), outer(10));
              EXPECT_TRUE(table->findPublicAddress(inner(11)).isNull());
            }),
            0U);
}

TEST_F(AddressMaskMySQLLookup, AnExportTurnsTheAskingOnWithoutPreload) {
  addPairs(0, 1);
  const auto table = open(false);
  table->exportToFile("/dev/null");
  EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
}

TEST_F(AddressMaskMySQLLookup, AFullCacheGivesUpItsLeastRecentlyUsedPairForARowThatWasAskedFor) {
  addPairs(0, 2000);
  const auto table = open(true);
  EXPECT_THAT(statementsOf([&] { EXPECT_EQ(table->findPublicAddress(inner(1500)), outer(1500)); }),
              ElementsAre("select * from mask where private ='p1500@d.example'"));
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(inner(1500)), outer(1500));
              EXPECT_EQ(table->findPrivateAddress(outer(1500)), inner(1500));
              EXPECT_EQ(table->findPublicAddress(inner(1)), outer(1));
            }),
            0U);
  EXPECT_EQ(statementCount([&] { EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0)); }), 1U);
}

TEST_F(AddressMaskMySQLLookup, AForwardHitCountsAsUse) {
  addPairs(0, 1100);
  const auto table = open(true);
  EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
  EXPECT_EQ(table->findPublicAddress(inner(1050)), outer(1050));
  EXPECT_EQ(statementCount([&] { EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0)); }), 0U);
  EXPECT_EQ(statementCount([&] { EXPECT_EQ(table->findPublicAddress(inner(1)), outer(1)); }), 1U);
}

TEST_F(AddressMaskMySQLLookup, AReverseHitDoesNotCountAsUse) {
  addPairs(0, 1100);
  const auto table = open(true);
  EXPECT_EQ(table->findPrivateAddress(outer(0)), inner(0));
  EXPECT_EQ(table->findPublicAddress(inner(1050)), outer(1050));
  EXPECT_EQ(statementCount([&] { EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0)); }), 1U);
}

TEST_F(AddressMaskMySQLLookup, AnAddressThatIsNotThereIsAskedForEveryTime) {
  const auto table = openPartlyCached(5, 7);
  const EmailAddress unknown = address("unknown@d.example");
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(statementsOf([&] { EXPECT_TRUE(table->findPublicAddress(unknown).isNull()); }),
                ElementsAre("select * from mask where private ='unknown@d.example'"));
    EXPECT_THAT(statementsOf([&] { EXPECT_TRUE(table->findPrivateAddress(unknown).isNull()); }),
                ElementsAre("select * from mask where public ='unknown@d.example'"));
  }
}

TEST_F(AddressMaskMySQLLookup, WhatIsCachedHasTheSpellingOfTheQuestion) {
  const auto table = openPartlyCached(1, 3);
  EXPECT_EQ(table->findPublicAddress(address("P0001@D.example")), outer(1));
  EXPECT_EQ(table->findPrivateAddress(outer(1)).address(), "P0001@D.example");
  EXPECT_EQ(table->findPrivateAddress(address("Q0002@E.example")), inner(2));
  EXPECT_EQ(table->findPublicAddress(inner(2)).address(), "Q0002@E.example");
}

TEST_F(AddressMaskMySQLLookup, TheNewestOfTwoCachedPairsWithOnePublicAddressIsFound) {
  addMask("old@d.example", "q@e.example");
  const auto table = open(true);
  sql("delete from ts_address_map.mask");
  addMask("new@d.example", "q@e.example");
  addMask("other@d.example", "other@e.example");
  table->exportToFile("/dev/null");
  EXPECT_EQ(table->findPublicAddress(address("new@d.example")), address("q@e.example"));
  EXPECT_EQ(table->findPrivateAddress(address("q@e.example")), address("new@d.example"));
}

TEST_F(AddressMaskMySQLLookup, WildcardsMapDomainsInBothDirections) {
  addMask("*@inner.example", "*@outer.example");
  const auto table = open(true);
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(address("L@inner.example")).address(),
                        "L@outer.example");
              EXPECT_EQ(table->findPrivateAddress(address("L@outer.example")).address(),
                        "L@inner.example");
              EXPECT_EQ(table->findPublicAddress(address("\"l \\\" l\"@inner.example")).address(),
                        "\"l \\\" l\"@outer.example");
            }),
            0U);
}

TEST_F(AddressMaskMySQLLookup, WildcardDomainsAreComparedByteByByte) {
  addMask("*@inner.example", "*@outer.example");
  const auto table = open(true);
  for (const char* other : {"L@Inner.example", "L@sub.inner.example", "L@inner.exampl"}) {
    EXPECT_TRUE(table->findPublicAddress(address(other)).isNull()) << other;
  }
  for (const char* other : {"L@Outer.example", "L@sub.outer.example", "L@outer.exampl"}) {
    EXPECT_TRUE(table->findPrivateAddress(address(other)).isNull()) << other;
  }
}

TEST_F(AddressMaskMySQLLookup, PlainPairsAreComparedWithoutCase) {
  addMask("p@d.example", "q@e.example");
  const auto table = open(true);
  EXPECT_EQ(table->findPublicAddress(address("P@D.example")), address("q@e.example"));
  EXPECT_EQ(table->findPrivateAddress(address("Q@E.example")), address("p@d.example"));
}

TEST_F(AddressMaskMySQLLookup, TheFirstOfTwoPrivateDomainsWins) {
  addMask("*@a2.example", "b*@b.example");
  addMask("*@a1.example", "*@b.example");
  EXPECT_EQ(open(true)->findPrivateAddress(address("x@b.example")), address("x@a1.example"));
}

TEST_F(AddressMaskMySQLLookup, APlainPrivateAddressWithAPublicWildcardIsBoth) {
  addMask("p@a.example", "*@b.example");
  const auto table = open(true);
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(address("p@a.example")), address("*@b.example"));
              EXPECT_EQ(table->findPublicAddress(address("x@a.example")), address("x@b.example"));
              EXPECT_EQ(table->findPrivateAddress(address("x@b.example")), address("x@a.example"));
            }),
            0U);
}

TEST_F(AddressMaskMySQLLookup, AWildcardAnswersOnlyWhenCacheAndTableHaveNothing) {
  addMask("*@d.example", "*@w.example");
  const auto table = openPartlyCached(1, 2);
  EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(address("l@d.example")), address("l@w.example"));
              EXPECT_EQ(table->findPrivateAddress(address("l@w.example")), address("l@d.example"));
            }),
            2U);
  EXPECT_EQ(table->findPublicAddress(inner(1)), outer(1));
}

TEST_F(AddressMaskMySQLLookup, AFailedForwardLookupIsWrapped) {
  const auto table = openPartlyCached(5, 7);
  hideTable();
  const Exception got = caught([&] { static_cast<void>(table->findPublicAddress(inner(5))); });
  expectFacts(got, "findPublicAddress", 4, "AddressMaskMySQL", 100);
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1146);
  EXPECT_EQ(got.cause()->cause(), nullptr);
}

TEST_F(AddressMaskMySQLLookup, AFailedReverseLookupIsWrappedAndSwapsItsNumbers) {
  const auto table = openPartlyCached(5, 7);
  hideTable();
  const Exception got = caught([&] { static_cast<void>(table->findPrivateAddress(outer(5))); });
  expectFacts(got, "findPrivateAddress", 4, "AddressMaskMySQL", 162, "m_entries = 5 / cached=7");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1146);
  EXPECT_EQ(got.cause()->cause(), nullptr);
}

TEST_F(AddressMaskMySQLLookup, ARowThatDoesNotParseIsWrappedToo) {
  const auto table = openPartlyCached(0, 1);
  sql("update ts_address_map.mask set public='no address'");
  const Exception got = caught([&] { static_cast<void>(table->findPublicAddress(inner(0))); });
  expectFacts(got, "findPublicAddress", 4, "AddressMaskMySQL", 100);
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->context(), "EmailAddress::rfc5321Parse");
}

TEST_F(AddressMaskMySQLLookup, AnAddressThatGetsTooLongIsAFailureAndNotAMiss) {
  const std::string label(60, 'd');
  const std::string longDomain = label + "." + label + "." + label + "." + label + ".example";
  addMask("*@a.example", "*@" + longDomain.substr(61));
  addMask("*@" + longDomain.substr(61), "*@b.example");
  const auto table = open(true);
  const std::string local(64, 'l');
  const Exception forward =
      caught([&] { static_cast<void>(table->findPublicAddress(address(local + "@a.example"))); });
  expectFacts(forward, "findPublicAddress", 4, "AddressMaskMySQL", 100);
  ASSERT_NE(forward.cause(), nullptr);
  EXPECT_EQ(forward.cause()->context(), "EmailAddress::create");
  const Exception reverse =
      caught([&] { static_cast<void>(table->findPrivateAddress(address(local + "@b.example"))); });
  expectFacts(reverse, "findPrivateAddress", 4, "AddressMaskMySQL", 162,
              "m_entries = 0 / cached=0");
  ASSERT_NE(reverse.cause(), nullptr);
  EXPECT_EQ(reverse.cause()->context(), "EmailAddress::create");
}

TEST_F(AddressMaskMySQLLookup, NothingIsCachedWhenAskingFails) {
  const auto table = openPartlyCached(5, 7);
  hideTable();
  EXPECT_THROW(static_cast<void>(table->findPublicAddress(inner(5))), Exception);
  EXPECT_THROW(static_cast<void>(table->findPrivateAddress(outer(6))), Exception);
  EXPECT_EQ(
      caught([&] { static_cast<void>(table->findPrivateAddress(outer(6))); }).stringParameter(),
      "m_entries = 5 / cached=7");
  showTable();
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(inner(5)), outer(5));
              EXPECT_EQ(table->findPrivateAddress(outer(6)), inner(6));
            }),
            2U);
}

TEST_F(AddressMaskMySQLLookup, TheMutexIsReleasedOnEveryPath) {
  addMask("*@d.example", "*@w.example");
  const auto table = openPartlyCached(1, 4);
  static_cast<void>(table->findPublicAddress(inner(1)));  // found in the table
  expectFreeMutex();
  static_cast<void>(table->findPrivateAddress(outer(2)));
  expectFreeMutex();
  static_cast<void>(table->findPublicAddress(address("l@d.example")));  // wildcard
  expectFreeMutex();
  static_cast<void>(table->findPrivateAddress(address("unknown@x.example")));  // nowhere
  expectFreeMutex();
  sql("update ts_address_map.mask set public='no address' where private='p0003@d.example'");
  EXPECT_THROW(static_cast<void>(table->findPublicAddress(inner(3))), Exception);
  expectFreeMutex();
  AddressMaskDbMySQL::Cache cache(0);
  EXPECT_THROW(table->queryEntries(cache), Exception);
  expectFreeMutex();
  AddressMaskDbMySQL::Entries entries;
  EXPECT_THROW(table->findByMaskedDomain("*", entries), Exception);
  expectFreeMutex();
  hideTable();
  EXPECT_THROW(static_cast<void>(table->findPublicAddress(inner(3))), Exception);
  EXPECT_THROW(static_cast<void>(table->findPrivateAddress(outer(3))), Exception);
  EXPECT_THROW(table->queryAdd(inner(3), outer(3)), Exception);
  EXPECT_THROW(table->queryDelete(inner(3), outer(3)), Exception);
  EXPECT_THROW(table->queryDelete("d.example"), Exception);
  EXPECT_THROW(table->queryWildCards(), Exception);
  expectFreeMutex();
}

// A table whose queries do what a test wants and answer with the address they are asked for.
class OddTable : public AddressMaskDbMySQL {
 public:
  using AddressMaskDbMySQL::AddressMaskDbMySQL;
  [[nodiscard]] EmailAddress queryPublicAddress(const EmailAddress& address) const override {
    m_onQuery();
    return address;
  }
  [[nodiscard]] EmailAddress queryPrivateAddress(const EmailAddress& address) const override {
    m_onQuery();
    return address;
  }
  std::function<void()> m_onQuery = [] {};
};

TEST_F(AddressMaskMySQLLookup, TheTableIsAskedThroughTheVirtualQueriesUnderTheMutex) {
  addPairs(0, 4);
  OddTable table(*m_store, false, "");
  table.exportToFile("/dev/null");
  int asked = 0;
  table.m_onQuery = [&] {
    EXPECT_FALSE(Testing::isFree(m_store->mutex()));
    ++asked;
  };
  EXPECT_EQ(table.findPublicAddress(inner(0)), inner(0));
  expectFreeMutex();
  EXPECT_EQ(table.findPrivateAddress(outer(1)), outer(1));
  expectFreeMutex();
  EXPECT_EQ(asked, 2);
}

TEST_F(AddressMaskMySQLLookup, OtherExceptionsPassUnwrapped) {
  addPairs(0, 2);
  OddTable table(*m_store, false, "");
  table.exportToFile("/dev/null");
  table.m_onQuery = [] { throw std::runtime_error("no Exception"); };
  EXPECT_THROW(static_cast<void>(table.findPublicAddress(inner(0))), std::runtime_error);
  expectFreeMutex();
  EXPECT_THROW(static_cast<void>(table.findPrivateAddress(outer(1))), std::runtime_error);
  expectFreeMutex();
}

// The cache's own lock stops the lookup at the point where it adds what the table answered.
TEST_F(AddressMaskMySQLLookup, TheMutexIsHeldUntilTheAnswerIsCached) {
  addPairs(0, 4);
  OddTable table(*m_store, false, "");
  table.exportToFile("/dev/null");
  for (const std::function<void()>& lookup : std::vector<std::function<void()>>{
           [&] { EXPECT_EQ(table.findPublicAddress(inner(0)), inner(0)); },
           [&] { EXPECT_EQ(table.findPrivateAddress(outer(1)), outer(1)); }}) {
    boost::unique_lock<boost::shared_mutex> cacheLock(table.m_cache.m_mutex, boost::defer_lock);
    std::promise<void> asked;
    std::promise<void> stopped;
    table.m_onQuery = [&] {
      asked.set_value();
      stopped.get_future().wait();
    };
    std::thread thread(lookup);
    asked.get_future().wait();
    cacheLock.lock();
    stopped.set_value();
    constexpr std::chrono::milliseconds patience(100);
    const auto end = std::chrono::steady_clock::now() + patience;
    bool wasFree = false;
    while (!wasFree && std::chrono::steady_clock::now() < end) {
      wasFree = Testing::isFree(m_store->mutex());
    }
    cacheLock.unlock();
    thread.join();
    EXPECT_FALSE(wasFree);
    expectFreeMutex();
  }
}

TEST_F(AddressMaskMySQLLookup, WhatNeedsNoStatementTakesNoTableLock) {
  addPairs(0, 1);
  addMask("*@w.example", "*@v.example");
  const auto table = open(true);
  EXPECT_TRUE(Testing::endsInSpiteOf(std::unique_lock(m_store->mutex()), [&] {
    EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
    EXPECT_EQ(table->findPrivateAddress(outer(0)), inner(0));
    EXPECT_EQ(table->findPublicAddress(address("l@w.example")), address("l@v.example"));
    EXPECT_EQ(table->findPrivateAddress(address("l@v.example")), address("l@w.example"));
    EXPECT_TRUE(table->findPublicAddress(inner(7)).isNull());
    EXPECT_TRUE(table->findPrivateAddress(outer(7)).isNull());
  }));
}

TEST_F(AddressMaskMySQLLookup, ForwardLookupsAndWritesRunFromManyThreads) {
  addMask("*@w.example", "*@v.example");
  const auto table = openPartlyCached(30, 90);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 90; ++i) {
        EXPECT_EQ(table->findPublicAddress(inner(i)), outer(i));
        EXPECT_EQ(table->findPublicAddress(address("l@w.example")), address("l@v.example"));
      }
    });
  }
  for (int t = 1; t <= 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 30; ++i) {
        table->queryAdd(inner(1000 * t + i), outer(1000 * t + i));
        if (i % 10 == 0) table->exportToFile("/dev/null");
      }
      table->queryDelete(inner(1000 * t), outer(1000 * t));
    });
  }
  for (std::thread& thread : threads) thread.join();
  // 90 and the wildcard, and 29 of each writer.
  EXPECT_EQ(rows().size(), 149U);
}

}  // namespace
}  // namespace Tessel
