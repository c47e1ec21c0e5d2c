// Tests of the store handle.
#include "AddressMapDb.h"

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "local/ServerProcess.h"
#include "map/AddressMapDbImpl.h"
#include "map/FakeStore.h"
#include "support/Caught.h"
#include "support/MapDatabase.h"
#include "support/SocketRelay.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::ElementsAre;
using Testing::expectFacts;
using Testing::FakeStore;
using Testing::handleOver;
using testing::IsEmpty;
using Testing::StoreEvents;

constexpr auto s_unknownType = static_cast<AddressMapDb::Type>(2);

TEST(AddressMapDb, AnUnknownTypeIsRefused) {
  const Exception got = caught([] { const AddressMapDb store(s_unknownType, true); });
  expectFacts(got, "AddressMapDb::AddressMapDb", 4, "AddressMapDb", 15, "Unknown Storage type");
  EXPECT_EQ(got.cause(), nullptr);
}

TEST(AddressMapDb, InitializingAnUnknownTypeIsRefused) {
  const Exception got = caught([] { AddressMapDb::initialize(s_unknownType, true); });
  expectFacts(got, "AddressMapDb::initialize", 4, "AddressMapDb", 135, "Unknown Storage type");
  EXPECT_EQ(got.cause(), nullptr);
}

TEST(AddressMapDb, ATableThatCannotBeCreatedIsReportedWithTheConstructorsContext) {
  StoreEvents events;
  const AddressMapDb store = handleOver(new FakeStore(events));
  expectFacts(caught([&] { static_cast<void>(store.maskDb("none")); }),
              "AddressMapDb::AddressMapDb", 4, "AddressMapDb", 77, "Could not create MaskDb");
  expectFacts(caught([&] { static_cast<void>(store.aliasDb("none")); }),
              "AddressMapDb::AddressMapDb", 4, "AddressMapDb", 114, "Could not create AliasDb");
}

TEST(AddressMapDb, ProgramsGetHandlesFromTheLibraryOnly) {
  static_assert(!std::is_constructible_v<AddressMapDb, AddressMapDbImpl*>);
  static_assert(!std::is_constructible_v<AddressAliasDb, AddressAliasDbImpl*>);
  static_assert(!std::is_constructible_v<AddressMaskDb, AddressMaskDbImpl*>);
  static_assert(std::is_constructible_v<AddressMapDb, AddressMapDb::Type, bool>);
  SUCCEED();
}

TEST(AddressMapDb, CopiesShareTheStoreAndSelfAssignmentChangesNothing) {
  StoreEvents events;
  {
    AddressMapDb store = handleOver(new FakeStore(events));
    const AddressMapDb copy(store);
    EXPECT_EQ(store.aliasDb("a").impl(), copy.aliasDb("a").impl());
    const AddressMapDb& itself = store;
    store = itself;
    EXPECT_EQ(store.aliasDb("a").impl(), copy.aliasDb("a").impl());
    EXPECT_EQ(events.storesDestroyed, 0);
  }
  EXPECT_EQ(events.storesDestroyed, 1);
}

TEST(AddressMapDb, ADefaultHandleMayBeCopiedAndAssigned) {
  StoreEvents events;
  const AddressMapDb none;
  AddressMapDb target = handleOver(new FakeStore(events));
  target = none;
  EXPECT_EQ(events.storesDestroyed, 1);
  const AddressMapDb copy(target);
}

using AddressMapDbOnServer = Testing::MapDatabase;

TEST_F(AddressMapDbOnServer, AnUnknownTypeIsRefusedBeforeAnyConnectionIsMade) {
  Testing::Relay relay;
  caught([] { const AddressMapDb store(s_unknownType, true); });
  caught([] { AddressMapDb::initialize(s_unknownType, true); });
  EXPECT_EQ(relay.relay().connections(), 0);
}

TEST_F(AddressMapDbOnServer, OpeningWithPreloadReadsTheMaskTableAndThenTheAliasTable) {
  EXPECT_THAT(statementsOf([] { const AddressMapDb store(AddressMapDb::MySQL, true); }),
              ElementsAre("select * from mask where private not like '%*%'",
                          "select * from mask where private like '%*%' or public like '%*%'",
                          "select * from alias"));
}

TEST_F(AddressMapDbOnServer, OpeningWithoutPreloadAsksNothing) {
  EXPECT_THAT(statementsOf([] { const AddressMapDb store(AddressMapDb::MySQL, false); }),
              IsEmpty());
}

TEST_F(AddressMapDbOnServer, TheEndOfAStoreRunsNoSqlAndWaitsForNothing) {
  Testing::TestServer& server = Testing::TestServer::shared();
  Testing::SocketRelay relay(server.directory() + "/relay.sock", server.socketPath());
  const Testing::TestServer::OptionFile options(
      server, "[client]\nsocket=" + relay.path() + "\nuser=" + callerName() + "\n");
  auto store = std::make_unique<AddressMapDb>(AddressMapDb::MySQL, true);
  const auto open = [] {
    return sql("select * from information_schema.processlist where db = 'ts_address_map'").size();
  };
  ASSERT_EQ(open(), 1U);
  const std::vector<std::string> before = relay.statements();
  ASSERT_EQ(before.size(), 4U) << "the set-up of the session and three preloads";
  relay.hold(true);
  const auto start = std::chrono::steady_clock::now();
  store.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  // The server notices the end behind whatever was sent before it.
  for (int i = 0; i < 500 && open() != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(open(), 0U);
  EXPECT_EQ(relay.statements(), before);
}

TEST_F(AddressMapDbOnServer, AFailedPreloadLeavesTheConstructorUnchanged) {
  sql("drop table ts_address_map.alias");
  const Exception got = caught([] { const AddressMapDb store(AddressMapDb::MySQL, true); });
  EXPECT_EQ(got.code(), 1146) << got.what();
  EXPECT_EQ(got.cause(), nullptr);
}

TEST_F(AddressMapDbOnServer, AMissingDatabaseIsAnErrorWhenTheStoreIsOpened) {
  sql("drop database ts_address_map");
  const Exception got = caught([] { const AddressMapDb store(AddressMapDb::MySQL, false); });
  EXPECT_EQ(got.code(), 1049) << got.what();
}

}  // namespace
}  // namespace Tessel
