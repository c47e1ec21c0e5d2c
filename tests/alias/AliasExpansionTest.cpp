// Tests of `expandAlias`: recursion, cycles, the cache in front, and the all-users marker.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "alias/AddressAliasDbMySQL.h"
#include "alias/AliasExpander.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/Writer.h"
#include "cmf/cmf_query.h"
#include "map/AddressMapMySQL.h"
#include "support/Caught.h"
#include "support/MapDatabase.h"
#include "support/StatementHook.h"

namespace {

// Called when a table of mail users is opened.
std::function<void()> s_onUserTable;

}  // namespace

// A definition in the program goes before that of the platform's library.
cmf_query* cmf_query_create_withdomain(uint32_t domain_id, uint32_t table_id) {
  if (s_onUserTable) s_onUserTable();
  static const auto s_create = reinterpret_cast<cmf_query* (*)(uint32_t, uint32_t)>(
      dlsym(RTLD_NEXT, "cmf_query_create_withdomain"));
  return s_create(domain_id, table_id);
}

namespace Tessel {
namespace {

using Testing::caught;
using testing::ElementsAre;
using Testing::expectFacts;
using testing::IsEmpty;
using testing::SizeIs;

class AliasExpansion : public Testing::MapDatabase {
 protected:
  // Expands `name` in a fresh store with preload.
  static std::set<EmailAddress> expand(const std::string& name) {
    const AddressMapDb store(AddressMapDb::MySQL, true);
    return store.aliasDb("").expandAlias(address(name));
  }

  // The number of statements that expanding `name` in `table` takes.
  static std::size_t statementsFor(const AddressAliasDb& table, const std::string& name) {
    return statementsOf([&] { static_cast<void>(table.expandAlias(address(name))); }).size();
  }
};

TEST_F(AliasExpansion, MembersThatAreNoAliasesAreFinal) {
  addAlias("a@d.example", "b@d.example,c@d.example");
  EXPECT_EQ(expand("a@d.example"), addresses("b@d.example,c@d.example"));
}

TEST_F(AliasExpansion, AnAddressThatIsNoAliasExpandsToNothing) {
  addAlias("a@d.example", "b@d.example");
  EXPECT_THAT(expand("b@d.example"), IsEmpty());
}

TEST_F(AliasExpansion, AnAliasThatListsItselfIsDeliveredToAsWell) {
  addAlias("a@d.example", "a@d.example,b@d.example");
  EXPECT_EQ(expand("a@d.example"), addresses("a@d.example,b@d.example"));
}

// What an expansion gives, with its letter case, which `==` of addresses disregards.
std::string s_texts(const std::set<EmailAddress>& addresses) {
  std::string texts;
  for (const EmailAddress& address : addresses) texts += address.address() + " ";
  return texts;
}

TEST_F(AliasExpansion, AnAliasThatListsItselfKeepsTheSpellingItWasAskedBy) {
  addAlias("team@d.example", "team@d.example,bob@d.example");
  EXPECT_EQ(s_texts(expand("TEAM@D.example")), "bob@d.example TEAM@D.example ");
  // One level down it was asked by the list that it is a member of.
  addAlias("all@d.example", "Team@d.example");
  EXPECT_EQ(s_texts(expand("all@d.example")), "bob@d.example Team@d.example ");
}

TEST_F(AliasExpansion, TwoAliasesNamingEachOtherExpandToNothingAndNothingIsCached) {
  addAlias("a@d.example", "b@d.example");
  addAlias("b@d.example", "a@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_THAT(table.expandAlias(address("a@d.example")), IsEmpty());
  EXPECT_EQ(statementsFor(table, "a@d.example"), 2U);
}

TEST_F(AliasExpansion, ACycleWithAWayOutExpandsToTheWayOut) {
  addAlias("a@d.example", "b@d.example,x@d.example");
  addAlias("b@d.example", "a@d.example,y@d.example");
  EXPECT_EQ(expand("a@d.example"), addresses("x@d.example,y@d.example"));
}

TEST_F(AliasExpansion, ASecondCallIsServedFromTheCache) {
  addAlias("a@d.example", "b@d.example");
  addAlias("b@d.example", "c@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_THAT(statementsOf([&] {
                EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("c@d.example"));
              }),
              ElementsAre("select * from alias where name='a@d.example'",
                          "select * from alias where name='b@d.example'",
                          "select * from alias where name='c@d.example'"));
  EXPECT_THAT(statementsOf([&] {
                EXPECT_EQ(table.expandAlias(address("A@D.example")), addresses("c@d.example"));
              }),
              IsEmpty());
}

TEST_F(AliasExpansion, EveryAddressIsAskedForOnce) {
  addAlias("a@d.example", "b@d.example,c@d.example");
  addAlias("b@d.example", "x@d.example");
  addAlias("c@d.example", "b@d.example,x@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  EXPECT_EQ(statementsFor(store.aliasDb(""), "a@d.example"), 4U);
}

TEST_F(AliasExpansion, ACacheThatHoldsAsManyEntriesAsTheTableHasRowsStopsAsking) {
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("b@d.example"));
  EXPECT_EQ(statementsFor(table, "unknown@d.example"), 0U);
}

TEST_F(AliasExpansion, AnAddressThatIsNoAliasIsAskedForEveryTime) {
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_EQ(statementsFor(table, "unknown@d.example"), 1U);
  EXPECT_EQ(statementsFor(table, "unknown@d.example"), 1U);
}

TEST_F(AliasExpansion, ATableOfMoreThan256RowsIsAlwaysAskedOnAMiss) {
  std::string values;
  for (int i = 0; i < 300; ++i) {
    values += (i == 0 ? "" : ",") + std::string("( 'n") + std::to_string(i) +
              "@d.example','m@d.example' )";
  }
  sql("insert into ts_address_map.alias ( name, members ) values " + values);
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  for (int i = 0; i < 300; ++i) {
    EXPECT_THAT(table.expandAlias(address("n" + std::to_string(i) + "@d.example")), SizeIs(1));
  }
  EXPECT_EQ(statementsFor(table, "unknown@d.example"), 1U);
  // The first alias was evicted, the last one was not.
  EXPECT_EQ(statementsFor(table, "n299@d.example"), 0U);
  EXPECT_EQ(statementsFor(table, "n0@d.example"), 2U);
}

TEST_F(AliasExpansion, AStoreWithoutPreloadReturnsNothingAndAsksNothing) {
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, false);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_THAT(table.expandAlias(address("a@d.example")), IsEmpty());
  EXPECT_EQ(statementsFor(table, "a@d.example"), 0U);
}

TEST_F(AliasExpansion, AStoreWithoutPreloadTakesNoTableLock) {
  AddressMapDbMySQL backend(false);
  const AddressAliasDbMySQL table(backend, false, "");
  EXPECT_TRUE(Testing::endsInSpiteOf(std::unique_lock(backend.mutex()), [&] {
    EXPECT_THAT(table.expandAlias(address("a@d.example")), IsEmpty());
  }));
}

TEST_F(AliasExpansion, TheExpanderItselfAsksNothingWithoutPreload) {
  addAlias("a@d.example", "b@d.example");
  AddressMapDbMySQL backend(false);
  const AddressAliasDbMySQL table(backend, false, "");
  const EmailAddress alias = address("a@d.example");
  const EmailAddress other = address("x@d.example");
  std::set<EmailAddress> result = addresses("kept@d.example");
  std::set<EmailAddress> visited;
  EXPECT_THAT(statementsOf([&] {
                AliasExpander{&table, &other, &result, &visited}.expand(alias);
              }),
              IsEmpty());
  EXPECT_EQ(result, addresses("kept@d.example"));
  EXPECT_THAT(visited, ElementsAre(alias));
}

TEST_F(AliasExpansion, AfterAnExportAStoreWithoutPreloadSendsOneStatementForEachAddress) {
  addAlias("a@d.example", "b@d.example,c@d.example");
  addAlias("b@d.example", "c@d.example,a@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, false);
  AddressAliasDb table = store.aliasDb("");
  table.exportToFile("/dev/null");
  EXPECT_THAT(statementsOf([&] {
                EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("c@d.example"));
              }),
              ElementsAre("select * from alias where name='a@d.example'",
                          "select * from alias where name='b@d.example'",
                          "select * from alias where name='c@d.example'"));
}

// A table that looks at its mutex before each of its queries, or ends them otherwise.
class WatchingTable : public AddressAliasDbMySQL {
 public:
  explicit WatchingTable(AddressMapDbMySQL& backend)
      : AddressAliasDbMySQL(backend, true, ""), m_watched(backend.mutex()) {}
  void queryFindMembers(const EmailAddress& alias, Members& members) const override {
    if (m_fails) throw std::runtime_error("no Exception");
    ++m_asked;
    m_freeWhenAsked += Testing::isFree(m_watched) ? 1 : 0;
    AddressAliasDbMySQL::queryFindMembers(alias, members);
  }
  mutable int m_asked = 0;
  mutable int m_freeWhenAsked = 0;
  bool m_fails = false;

 private:
  Mutex& m_watched;
};

TEST_F(AliasExpansion, TheTableLockIsHeldOverTheWholeExpansionAndIsFreeAfterIt) {
  addAlias("a@d.example", "b@d.example");
  addAlias("b@d.example", "c@d.example");
  AddressMapDbMySQL backend(false);
  const WatchingTable table(backend);
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("c@d.example"));
  EXPECT_EQ(table.m_asked, 3);
  EXPECT_EQ(table.m_freeWhenAsked, 0);
  EXPECT_TRUE(Testing::isFree(backend.mutex()));
  EXPECT_THAT(table.expandAlias(address("unknown@d.example")), IsEmpty());
  EXPECT_TRUE(Testing::isFree(backend.mutex()));
}

TEST_F(AliasExpansion, ACacheHitTakesNoTableLock) {
  addAlias("a@d.example", "b@d.example");
  AddressMapDbMySQL backend(false);
  const AddressAliasDbMySQL table(backend, true, "");
  const EmailAddress alias = address("a@d.example");
  EXPECT_EQ(table.expandAlias(alias), addresses("b@d.example"));
  EXPECT_TRUE(Testing::endsInSpiteOf(std::unique_lock(backend.mutex()), [&] {
    EXPECT_EQ(table.expandAlias(alias), addresses("b@d.example"));
  }));
}

TEST_F(AliasExpansion, OtherExceptionsPassUnwrappedAndLeaveTheMutexFree) {
  addAlias("a@d.example", "b@d.example");
  AddressMapDbMySQL backend(false);
  WatchingTable table(backend);
  table.m_fails = true;
  EXPECT_THROW(static_cast<void>(table.expandAlias(address("a@d.example"))), std::runtime_error);
  EXPECT_TRUE(Testing::isFree(backend.mutex()));
}

TEST_F(AliasExpansion, WritesDoNotReachCachedExpansions) {
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("b@d.example"));
  auto* const writer = static_cast<AddressAliasDbMySQL*>(table.impl());
  writer->queryAdd(address("a@d.example"), addresses("new@d.example"));
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("b@d.example"));
  EXPECT_EQ(expand("a@d.example"), addresses("new@d.example"));
}

TEST_F(AliasExpansion, NamedTablesExpandOnTheirOwn) {
  addAlias("a@d.example", "b@d.example");
  Database::Connection connection("ts_address_map");
  createAliasTable(connection, "alias_sales");
  addAlias("a@d.example", "sales@d.example", "alias_sales");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  EXPECT_EQ(store.aliasDb("sales").expandAlias(address("a@d.example")),
            addresses("sales@d.example"));
}

TEST_F(AliasExpansion, AFailedQueryIsWrappedAndNothingIsCached) {
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  sql("rename table ts_address_map.alias to ts_address_map.away");
  const Exception got =
      caught([&] { static_cast<void>(table.expandAlias(address("a@d.example"))); });
  expectFacts(got, "expandAlias ", 4, "AddressAliasDbMySQL", 311);
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1146);
  EXPECT_EQ(got.cause()->cause(), nullptr);
  sql("rename table ts_address_map.away to ts_address_map.alias");
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("b@d.example"));
}

TEST_F(AliasExpansion, AServerThatWasKilledAndRestartedIsAskedAgain) {
  makeDurable();
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  auto& server = Testing::TestServer::shared();
  server.kill();
  const Exception got =
      caught([&] { static_cast<void>(table.expandAlias(address("a@d.example"))); });
  expectFacts(got, "expandAlias ", 4, "AddressAliasDbMySQL", 311);
  server.restart();
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("b@d.example"));
}

TEST_F(AliasExpansion, AServerThatRestartedBetweenTwoStatementsIsNotNoticed) {
  makeDurable();
  addAlias("a@d.example", "b@d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  auto& server = Testing::TestServer::shared();
  server.kill();
  server.restart();
  EXPECT_EQ(table.expandAlias(address("a@d.example")), addresses("b@d.example"));
}

TEST_F(AliasExpansion, ThreadsThatCompleteTheCacheTogetherAllGetTheMembers) {
  addAlias("a@d.example", "b@d.example");
  for (int round = 0; round < 50; ++round) {
    const AddressMapDb store(AddressMapDb::MySQL, true);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&store] {
        EXPECT_EQ(store.aliasDb("").expandAlias(address("a@d.example")), addresses("b@d.example"));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

TEST_F(AliasExpansion, ManyThreadsMayExpandInOneTable) {
  for (int i = 0; i < 20; ++i) {
    addAlias("n" + std::to_string(i) + "@d.example", "x" + std::to_string(i) + "@d.example");
  }
  const AddressMapDb store(AddressMapDb::MySQL, true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&store, t] {
      AddressAliasDb table = store.aliasDb("");
      for (int n = 0; n < 200; ++n) {
        const std::string number = std::to_string((n + t) % 20);
        EXPECT_EQ(table.expandAlias(address("n" + number + "@d.example")),
                  addresses("x" + number + "@d.example"));
        // Refreshes the row count while others read it.
        if (t == 0 && n % 50 == 0) table.exportToFile("/dev/null");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Expands in a configuration of its own: the domains d.example with users, and empty.example.
class AllUsersExpansion : public AliasExpansion {
 protected:
  void SetUp() override {
    AliasExpansion::SetUp();
    m_before = getenv("TSL_CMF_PATH");
    char directory[] = "/tmp/tsl-cmf-XXXXXX";
    m_directory = mkdtemp(directory);
    setenv("TSL_CMF_PATH", m_directory.c_str(), 1);
    CMF::Writer writer;
    writer.addDomain("d.example");
    writer.addUser("d.example", "bob", CMF::MailUserMailbox);
    writer.addUser("d.example", "Alice", CMF::MailUserMailbox);
    writer.addUser("d.example", "gone", CMF::MailUserDisabled);
    writer.addUser("d.example", "room", CMF::MailUserShared);
    writer.addDomain("empty.example");
    writer.commit();
  }

  void TearDown() override {
    setenv("TSL_CMF_PATH", m_before.c_str(), 1);
    std::filesystem::remove_all(m_directory);
  }

  std::string m_before;
  std::string m_directory;
};

TEST_F(AllUsersExpansion, TheMarkerStandsForTheUserMailboxesOfTheDomain) {
  addAlias("all@d.example", "allusers_d.example");
  EXPECT_EQ(expand("all@d.example"), addresses("Alice@d.example,bob@d.example"));
}

TEST_F(AllUsersExpansion, TheConfigurationStaysOpenFromOneExpansionToTheNext) {
  addAlias("all@d.example", "allusers_d.example");
  expand("all@d.example");
  const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, (m_directory + "/data.mdb").c_str(), IN_OPEN), 0);
  expand("all@d.example");
  char event[sizeof(inotify_event)];
  EXPECT_EQ(read(watch, event, sizeof(event)), -1) << "it was opened again";
  close(watch);
}

TEST_F(AllUsersExpansion, TheLetterCaseOfTheMarkerDoesNotMatter) {
  addAlias("all@D.example", "AllUsers_d.EXAMPLE");
  EXPECT_EQ(expand("all@D.example"), addresses("Alice@d.example,bob@d.example"));
}

TEST_F(AllUsersExpansion, TheDomainIsWrittenAsInTheAliasThatWasAskedFor) {
  addAlias("all@d.example", "allusers_d.example");
  const auto users = expand("all@D.EXAMPLE");
  ASSERT_THAT(users, SizeIs(2));
  EXPECT_EQ(users.begin()->address(), "Alice@D.EXAMPLE");
}

TEST_F(AllUsersExpansion, TheMarkerWithOtherMembersIsNotReplaced) {
  addAlias("all@d.example", "allusers_d.example,b@d.example");
  EXPECT_EQ(expand("all@d.example"), addresses("allusers_d.example,b@d.example"));
}

TEST_F(AllUsersExpansion, TheMarkerOfAnotherDomainIsNotReplaced) {
  addAlias("all@empty.example", "allusers_d.example");
  EXPECT_EQ(expand("all@empty.example"), addresses("allusers_d.example"));
}

TEST_F(AllUsersExpansion, AnUnknownDomainLeavesTheMarker) {
  addAlias("all@unknown.example", "allusers_unknown.example");
  EXPECT_EQ(expand("all@unknown.example"), addresses("allusers_unknown.example"));
}

TEST_F(AllUsersExpansion, ADomainWithoutUsersExpandsToNothing) {
  addAlias("all@empty.example", "allusers_empty.example");
  EXPECT_THAT(expand("all@empty.example"), IsEmpty());
}

TEST_F(AllUsersExpansion, ADeeperMarkerIsReplacedWhenItIsTheOnlyResult) {
  addAlias("all@d.example", "inner@d.example");
  addAlias("inner@d.example", "allusers_d.example");
  EXPECT_EQ(expand("all@d.example"), addresses("Alice@d.example,bob@d.example"));
}

TEST_F(AllUsersExpansion, ACachedMarkerIsReplacedByTheUsersOfTheMoment) {
  addAlias("all@d.example", "allusers_d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  const AddressAliasDb table = store.aliasDb("");
  EXPECT_THAT(table.expandAlias(address("all@d.example")), SizeIs(2));
  {
    CMF::Writer writer;
    writer.addUser("d.example", "carol", CMF::MailUserMailbox);
    writer.commit();
  }
  EXPECT_THAT(table.expandAlias(address("all@d.example")), SizeIs(3));
}

TEST_F(AllUsersExpansion, AnUnreadableConfigurationLeavesTheMarker) {
  addAlias("all@d.example", "allusers_d.example");
  setenv("TSL_CMF_PATH", "/nonexistent/configuration", 1);
  EXPECT_EQ(expand("all@d.example"), addresses("allusers_d.example"));
}

TEST_F(AllUsersExpansion, AUserNameWithABlankMakesTheDomainAnswerWithTheMarker) {
  addAlias("all@d.example", "allusers_d.example");
  {
    CMF::Writer writer;
    writer.addUser("d.example", "carol smith", CMF::MailUserMailbox);
    writer.commit();
  }
  EXPECT_EQ(expand("all@d.example"), addresses("allusers_d.example"));
}

// Opening the table of mail users is the one step of the configuration that a test can watch.
TEST_F(AllUsersExpansion, AMissReplacesTheMarkerUnderTheTableLockAndAHitWithoutIt) {
  addAlias("all@d.example", "allusers_d.example");
  AddressMapDbMySQL backend(false);
  const AddressAliasDbMySQL table(backend, true, "");
  std::vector<bool> free;
  s_onUserTable = [&] { free.push_back(Testing::isFree(backend.mutex())); };
  EXPECT_THAT(table.expandAlias(address("all@d.example")), SizeIs(2));
  EXPECT_THAT(table.expandAlias(address("all@d.example")), SizeIs(2));
  s_onUserTable = nullptr;
  EXPECT_THAT(free, ElementsAre(false, true));
}

TEST_F(AllUsersExpansion, OtherExceptionsOfTheConfigurationPass) {
  addAlias("all@d.example", "allusers_d.example");
  s_onUserTable = [] { throw std::runtime_error("no Exception"); };
  EXPECT_THROW(expand("all@d.example"), std::runtime_error);
  s_onUserTable = nullptr;
}

TEST_F(AllUsersExpansion, ManyThreadsMayExpandTheMarker) {
  addAlias("all@d.example", "allusers_d.example");
  const AddressMapDb store(AddressMapDb::MySQL, true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&store] {
      const AddressAliasDb table = store.aliasDb("");
      for (int n = 0; n < 100; ++n) {
        EXPECT_THAT(table.expandAlias(address("all@d.example")), SizeIs(2));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Tessel
