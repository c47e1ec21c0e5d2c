// Tests of one address-mask table: its statements, its preload and its writes.
#include "mask/AddressMaskMySQL.h"

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "mask/AddressMaskRow.h"
#include "mask/MaskTable.h"
#include "support/Caught.h"
#include "support/ExpectedLog.h"
#include "support/StatementHook.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::ElementsAre;
using Testing::expectFacts;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

using Entries = std::map<EmailAddress, EmailAddress>;

constexpr unsigned int s_logEmptyColumn = 0x300002a;

// An operation of the table `mask` and the statement that it sends, to its last character.
struct Operation {
  std::string statement;
  std::function<void(AddressMaskDbMySQL&)> run;
};

class AddressMaskMySQLOnServer : public Testing::MaskTable {
 protected:
  static std::vector<Operation> operations() {
    return {
        {"insert into mask (private, public ) values( 'p@d.example','q@e.example' ) "
         "on duplicate key update public=values( public );",
         [](auto& table) { table.queryAdd(address("p@d.example"), address("q@e.example")); }},
        {"select * from mask where private ='p@d.example';",
         [](auto& table) { static_cast<void>(table.queryPublicAddress(address("p@d.example"))); }},
        {"select * from mask where public ='q@e.example';",
         [](auto& table) { static_cast<void>(table.queryPrivateAddress(address("q@e.example"))); }},
        {"select * from mask;",
         [](auto& table) {
           Entries entries;
           table.findByMaskedDomain("*", entries);
         }},
        {"select * from mask where private like '%@d.example';",
         [](auto& table) {
           Entries entries;
           table.findByMaskedDomain("d.example", entries);
         }},
        {"delete from mask where private='p@d.example' and public='q@e.example';",
         [](auto& table) { table.queryDelete(address("p@d.example"), address("q@e.example")); }},
        {"delete from mask where private like '%@d.example';",
         [](auto& table) { table.queryDelete("d.example"); }},
        {"select * from mask where private not like '%*%';",
         [](auto& table) {
           AddressMaskDbMySQL::Cache cache(0);
           table.queryEntries(cache);
         }},
        {"select * from mask where private like '%*%' or public like '%*%';",
         [](auto& table) { table.queryWildCards(); }},
    };
  }

  // Expects one message about a row with an empty column.
  static void expectOneBrokenRowInTheLog() {
    const auto log = Testing::takeLog();
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_EQ(log[0].code, s_logEmptyColumn);
    EXPECT_EQ(log[0].number, 0);
    EXPECT_EQ(log[0].text, " ");
  }
};

TEST_F(AddressMaskMySQLOnServer, EveryOperationSendsItsStatement) {
  for (const Operation& operation : operations()) {
    EXPECT_THAT(sentBy([&] {
                  AddressMapDbMySQL store(false);
                  AddressMaskDbMySQL table(store, false, "");
                  operation.run(table);
                }),
                ElementsAre(operation.statement));
  }
}

TEST_F(AddressMaskMySQLOnServer, AStatementWithoutAnAnswerIsSentOnceMore) {
  Testing::Relay relay;
  AddressMapDbMySQL store(false);
  AddressMaskDbMySQL table(store, false, "");
  for (const Operation& operation : operations()) {
    EXPECT_THAT(relay.sentWithoutAnswer([&] { operation.run(table); }),
                ElementsAre(operation.statement, operation.statement));
  }
}

TEST_F(AddressMaskMySQLOnServer, TheMutexIsHeldForEachStatementAndNoLonger) {
  const auto table = open(false);
  for (const Operation& operation : operations()) {
    int statements = 0;
    const Testing::StatementHook hook([&](const std::string& statement) {
      EXPECT_FALSE(Testing::isFree(m_store->mutex())) << statement;
      ++statements;
    });
    operation.run(*table);
    EXPECT_EQ(statements, 1);
    EXPECT_TRUE(Testing::isFree(m_store->mutex())) << operation.statement;
  }
}

TEST_F(AddressMaskMySQLOnServer, TheMutexIsFreeAfterEveryFailure) {
  const auto table = open(false);
  const Testing::StatementHook hook(
      [](const std::string& /*statement*/) { throw Exception("hook", 4, nullptr, 0); });
  for (const Operation& operation : operations()) {
    EXPECT_THROW(operation.run(*table), Exception);
    EXPECT_TRUE(Testing::isFree(m_store->mutex())) << operation.statement;
  }
}

TEST_F(AddressMaskMySQLOnServer, EntriesAreAddedUnderTheMutexThroughTheVirtualAdd) {
  addPairs(0, 2);
  for (const unsigned int capacity : {0U, 10U}) {
    Testing::WatchingCache<AddressMaskDbMySQL::Cache> cache(capacity, m_store->mutex());
    open(false)->queryEntries(cache);
    EXPECT_EQ(cache.m_added, 2);
    EXPECT_EQ(cache.m_freeWhenAdding, 0);
  }
}

TEST_F(AddressMaskMySQLOnServer, EntriesLetOtherExceptionsPassUnwrapped) {
  addPairs(0, 1);
  Testing::WatchingCache<AddressMaskDbMySQL::Cache> cache(10, m_store->mutex());
  cache.m_fails = true;
  EXPECT_THROW(open(false)->queryEntries(cache), std::runtime_error);
  EXPECT_TRUE(Testing::isFree(m_store->mutex()));
}

TEST_F(AddressMaskMySQLOnServer, AStoreNameIsAppendedToTheTableName) {
  createMaskTable(m_store->connection(), "mask_sales");
  EXPECT_THAT(statementsOf([this] { open(true, "sales"); }),
              ElementsAre("select * from mask_sales where private not like '%*%'",
                          "select * from mask_sales where private like '%*%' or public like "
                          "'%*%'"));
}

TEST_F(AddressMaskMySQLOnServer, WithoutPreloadTheConstructorAsksNothing) {
  addMask("p@d.example", "q@e.example");
  EXPECT_THAT(statementsOf([this] { open(false); }), IsEmpty());
}

TEST_F(AddressMaskMySQLOnServer, APreloadReadsPlainRowsThenWildcards) {
  EXPECT_THAT(statementsOf([this] { open(true); }),
              ElementsAre("select * from mask where private not like '%*%'",
                          "select * from mask where private like '%*%' or public like '%*%'"));
}

TEST_F(AddressMaskMySQLOnServer, ATableOf2000PlainRowsCachesThe1024ReadFirstAndCountsAll) {
  addPairs(0, 2000);
  const auto table = open(true);
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
              EXPECT_EQ(table->findPublicAddress(inner(1023)), outer(1023));
            }),
            0U);
  sql("drop table ts_address_map.mask");
  const Exception got =
      caught([&] { static_cast<void>(table->findPrivateAddress(address("unknown@e.example"))); });
  EXPECT_EQ(got.stringParameter(), "m_entries = 1024 / cached=2000");
  // The first row that was left out.
  EXPECT_EQ(caught([&] { static_cast<void>(table->findPublicAddress(inner(1024))); }).context(),
            "findPublicAddress");
}

TEST_F(AddressMaskMySQLOnServer, WildcardRowsAreNeitherCachedNorCounted) {
  addMask("*@a.example", "*@b.example");
  addPairs(0, 2);
  const auto table = open(true);
  AddressMaskDbMySQL::Cache cache(10);
  table->queryEntries(cache);
  EXPECT_EQ(cache.size(), 2U);
  EXPECT_EQ(cache.begin()->first, inner(1));
  // Two cached of two counted: the table is not asked.
  EXPECT_EQ(statementCount(
                [&] { EXPECT_TRUE(table->findPublicAddress(address("*@d.example")).isNull()); }),
            0U);
}

TEST_F(AddressMaskMySQLOnServer, EntriesStopAtACacheThatHolds1024AndCountOn) {
  addPairs(0, 3);
  AddressMaskDbMySQL::Cache cache(2000);
  for (int i = 0; i < 1022; ++i) cache.add(address(numbered("x", i) + "@x.example"), outer(i));
  const auto table = open(false);
  table->queryEntries(cache);
  EXPECT_EQ(cache.size(), 1024U);
  sql("drop table ts_address_map.mask");
  EXPECT_EQ(
      caught([&] { static_cast<void>(table->findPrivateAddress(outer(7))); }).stringParameter(),
      "m_entries = 0 / cached=3");
}

TEST_F(AddressMaskMySQLOnServer, TheLastRowOfAPrivateDomainWins) {
  addMask("*@a.example", "*@b.example");
  addMask("x*@a.example", "*@c.example");
  EXPECT_EQ(open(true)->findPublicAddress(address("l@a.example")), address("l@c.example"));
}

TEST_F(AddressMaskMySQLOnServer, WildcardsAreKeptWhenTheyAreReadAgain) {
  addMask("*@a1.example", "*@b1.example");
  addMask("*@a2.example", "*@b2.example");
  const auto table = open(true);
  sql("delete from ts_address_map.mask where private='*@a1.example'");
  sql("update ts_address_map.mask set public='*@b3.example'");
  table->queryWildCards();
  EXPECT_EQ(table->findPublicAddress(address("l@a1.example")), address("l@b1.example"));
  EXPECT_EQ(table->findPublicAddress(address("l@a2.example")), address("l@b3.example"));
}

TEST_F(AddressMaskMySQLOnServer, AddingAPrivateAddressAgainReplacesItsPublicOneInTheTableOnly) {
  addMask("p@d.example", "old@e.example");
  const auto table = open(true);
  table->queryAdd(address("p@d.example"), address("new@e.example"));
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "new@e.example"}}));
  EXPECT_EQ(table->findPublicAddress(address("p@d.example")), address("old@e.example"));
}

TEST_F(AddressMaskMySQLOnServer, ATakenPublicAddressStaysWithItsRowAndAddsNone) {
  const auto table = open(false);
  table->queryAdd(address("p@d.example"), address("q@e.example"));
  table->queryAdd(address("p2@d.example"), address("q@e.example"));
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLOnServer, APublicAddressOfAnotherRowCannotBeTakenOver) {
  addPairs(0, 2);
  // The private address finds its own row, whose new public address the other row has.
  EXPECT_EQ(caught([&] { open(false)->queryAdd(inner(0), outer(1)); }).code(), 1062);
  EXPECT_EQ(rows(), (Rows{{inner(0).address(), outer(0).address()},
                          {inner(1).address(), outer(1).address()}}));
}

TEST_F(AddressMaskMySQLOnServer, DeletingAPairTakesExactlyThatPair) {
  addPairs(0, 2);
  const auto table = open(false);
  table->queryDelete(inner(0), outer(1));
  EXPECT_THAT(rows(), SizeIs(2));
  table->queryDelete(inner(0), outer(0));
  EXPECT_EQ(rows(), (Rows{{inner(1).address(), outer(1).address()}}));
}

TEST_F(AddressMaskMySQLOnServer, DeletingADomainTakesItsPrivateAddressesOnly) {
  addMask("p@d.example", "q@e.example");
  addMask("*@d.example", "*@e.example");
  addMask("p@sub.d.example", "q@sub.example");
  addMask("p@e.example", "q@d.example");
  open(false)->queryDelete("d.example");
  EXPECT_EQ(rows(), (Rows{{"p@e.example", "q@d.example"}, {"p@sub.d.example", "q@sub.example"}}));
}

TEST_F(AddressMaskMySQLOnServer, WritesDoNotReachCacheCountAndWildcards) {
  addPairs(0, 1);
  addMask("*@a.example", "*@b.example");
  const auto table = open(true);
  table->queryDelete(inner(0), outer(0));
  table->queryDelete("a.example");
  table->queryAdd(inner(7), outer(7));
  table->queryAdd(address("*@a2.example"), address("*@b2.example"));
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
              EXPECT_EQ(table->findPublicAddress(address("l@a.example")), address("l@b.example"));
              EXPECT_TRUE(table->findPublicAddress(inner(7)).isNull());
              EXPECT_TRUE(table->findPublicAddress(address("l@a2.example")).isNull());
            }),
            0U);
}

TEST_F(AddressMaskMySQLOnServer, TheStarReturnsEveryRowAndADomainItsOwn) {
  addMask("p@d.example", "q@e.example");
  addMask("*@d.example", "*@e.example");
  addMask("p@sub.d.example", "q@sub.example");
  const auto table = open(false);
  Entries all;
  table->findByMaskedDomain("*", all);
  EXPECT_THAT(all, SizeIs(3));
  Entries some;
  table->findByMaskedDomain("d.example", some);
  EXPECT_THAT(some, ElementsAre(Pair(address("*@d.example"), address("*@e.example")),
                                Pair(address("p@d.example"), address("q@e.example"))));
}

TEST_F(AddressMaskMySQLOnServer, ListingKeepsWhatTheMapHoldsAndChangesNoAnswer) {
  addMask("p@d.example", "q@e.example");
  const auto table = open(false);
  Entries entries{{address("old@d.example"), address("kept@e.example")},
                  {address("p@d.example"), address("stale@e.example")}};
  table->findByMaskedDomain("*", entries);
  EXPECT_THAT(entries, ElementsAre(Pair(address("old@d.example"), address("kept@e.example")),
                                   Pair(address("p@d.example"), address("q@e.example"))));
  EXPECT_EQ(statementCount(
                [&] { EXPECT_TRUE(table->findPublicAddress(address("p@d.example")).isNull()); }),
            0U);
}

TEST_F(AddressMaskMySQLOnServer, ListingADomainAddsToWhatIsThere) {
  addMask("p@d.example", "q@e.example");
  Entries entries{{address("old@d.example"), address("kept@e.example")}};
  open(false)->findByMaskedDomain("d.example", entries);
  EXPECT_THAT(entries, ElementsAre(Pair(address("old@d.example"), address("kept@e.example")),
                                   Pair(address("p@d.example"), address("q@e.example"))));
}

TEST_F(AddressMaskMySQLOnServer, AddressesAreFoundInTheirOwnColumn) {
  addMask("p@d.example", "q@e.example");
  const auto table = open(false);
  EXPECT_EQ(table->queryPublicAddress(address("p@d.example")), address("q@e.example"));
  EXPECT_EQ(table->queryPrivateAddress(address("q@e.example")), address("p@d.example"));
  EXPECT_TRUE(table->queryPublicAddress(address("q@e.example")).isNull());
  EXPECT_TRUE(table->queryPrivateAddress(address("p@d.example")).isNull());
}

TEST_F(AddressMaskMySQLOnServer, TheStarIsNoDomainWhenDeleting) {
  addMask("p@d.example", "q@e.example");
  addMask("p@*", "q@*");
  open(false)->queryDelete("*");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLOnServer, BothColumnsOfARowAreBareAddresses) {
  const auto table = open(false);
  for (const char* text : {"nodomain", "Bob <b@d.example>"}) {
    for (const auto& [inner, outer] : {std::pair{text, "q@e.example"}, {"p@d.example", text}}) {
      sql("delete from ts_address_map.mask");
      addMask(inner, outer);
      Entries entries;
      EXPECT_EQ(caught([&] { table->findByMaskedDomain("*", entries); }).context(),
                "EmailAddress::rfc5321Parse")
          << inner << ":" << outer;
    }
  }
}

// Parser that notes what parsing each row returned.
class Outcomes : public Database::AllRowParser {
 public:
  void parse(void* connection, void* result) override {
    for (std::int64_t i = 0; i < db_result_row_num(result); ++i) {
      Database::AddressMaskRow row;
      m_outcomes.push_back(row.parse(connection, result, db_result_fetch_row(result, i)));
    }
  }
  std::vector<bool> m_outcomes;
};

TEST_F(AddressMaskMySQLOnServer, ParsingARowTellsWhetherItWasWhole) {
  addMask("p@d.example", "q@e.example");
  addMask("r@d.example", "");
  addMask("", "s@e.example");
  Outcomes parser;
  Database::Query query(m_store->connection(), &parser, true);
  query << "select * from mask order by private desc";
  query.execute();
  EXPECT_THAT(parser.m_outcomes, ElementsAre(false, true, false));
  EXPECT_THAT(Testing::takeLog(), SizeIs(2));
}

TEST_F(AddressMaskMySQLOnServer, UnknownAddressesAreNull) {
  const auto table = open(false);
  EXPECT_TRUE(table->queryPublicAddress(inner(0)).isNull());
  EXPECT_TRUE(table->queryPrivateAddress(outer(0)).isNull());
}

TEST_F(AddressMaskMySQLOnServer, TheCollationsIdeaOfEqualDecidesWhichRowAnswers) {
  addMask("\xc3\x89ric@d.example", "q@e.example");
  // No second look is taken, other than for aliases.
  EXPECT_EQ(open(false)->queryPublicAddress(address("\xc3\xa9ric@d.example")),
            address("q@e.example"));
}

TEST_F(AddressMaskMySQLOnServer, ARowWithAnEmptyColumnIsLoggedAndKept) {
  addMask("p@d.example", "");
  const auto table = open(false);
  Entries entries;
  table->findByMaskedDomain("*", entries);
  EXPECT_THAT(entries, ElementsAre(Pair(EmailAddress(), EmailAddress())));
  expectOneBrokenRowInTheLog();
  EXPECT_TRUE(table->queryPublicAddress(address("p@d.example")).isNull());
  expectOneBrokenRowInTheLog();
}

TEST_F(AddressMaskMySQLOnServer, RowsWithEmptyColumnsCountSoTheTableIsAlwaysAsked) {
  addMask("p@d.example", "");
  addMask("", "q@e.example");
  const auto table = open(true);
  EXPECT_THAT(Testing::takeLog(), SizeIs(2));
  // Both went into the cache as one null address, and count as two rows.
  EXPECT_EQ(statementCount(
                [&] { EXPECT_TRUE(table->findPublicAddress(address("x@d.example")).isNull()); }),
            1U);
}

TEST_F(AddressMaskMySQLOnServer, AWildcardRowWithAnEmptyColumnMapsAddressesWithoutDomain) {
  addMask("*@a.example", "");
  const auto table = open(true);
  expectOneBrokenRowInTheLog();
  EXPECT_TRUE(table->findPublicAddress(address("l@a.example")).isNull());
  EXPECT_EQ(table->findPublicAddress(address("root")), address("root"));
  EXPECT_EQ(table->findPrivateAddress(address("root")), address("root"));
}

TEST_F(AddressMaskMySQLOnServer, ARowThatDoesNotParseFailsTheWholeReading) {
  addMask("p@d.example", "q@e.example");
  addMask("no address", "x@e.example");
  const auto table = open(false);
  Entries entries;
  EXPECT_EQ(caught([&] { table->findByMaskedDomain("*", entries); }).context(),
            "EmailAddress::rfc5321Parse");
  EXPECT_THAT(entries, IsEmpty());
  EXPECT_EQ(caught([&] {
              static_cast<void>(table->queryPrivateAddress(address("x@e.example")));
            }).context(),
            "EmailAddress::rfc5321Parse");
  const Exception got = caught([&] { open(true); });
  expectFacts(got, "queryEntries ", 4, "AddressMaskMySQL", 218, "Error reading mask");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->context(), "EmailAddress::rfc5321Parse");
  EXPECT_EQ(got.cause()->cause(), nullptr);
}

TEST_F(AddressMaskMySQLOnServer, AnUnreadableTableFailsItsPreloadUnderItsName) {
  const Exception got = caught([&] { open(true, "missing"); });
  expectFacts(got, "queryEntries ", 4, "AddressMaskMySQL", 218, "Error reading mask_missing");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1146);
  EXPECT_EQ(got.cause()->cause(), nullptr);
}

TEST_F(AddressMaskMySQLOnServer, AWildcardThatDoesNotParseFailsThePreloadUnwrapped) {
  addMask("*", "*@b.example");
  const Exception got = caught([&] { open(true); });
  EXPECT_EQ(got.context(), "EmailAddress::rfc5321Parse");
}

TEST_F(AddressMaskMySQLOnServer, AMissingTableFailsEveryOtherOperationWithTheServersError) {
  const auto table = open(false, "missing");
  Entries entries;
  EXPECT_EQ(caught([&] { table->queryAdd(inner(0), outer(0)); }).code(), 1146);
  EXPECT_EQ(caught([&] { table->queryDelete(inner(0), outer(0)); }).code(), 1146);
  EXPECT_EQ(caught([&] { table->queryDelete("d.example"); }).code(), 1146);
  EXPECT_EQ(caught([&] { static_cast<void>(table->queryPublicAddress(inner(0))); }).code(), 1146);
  EXPECT_EQ(caught([&] { static_cast<void>(table->queryPrivateAddress(outer(0))); }).code(), 1146);
  EXPECT_EQ(caught([&] { table->findByMaskedDomain("*", entries); }).code(), 1146);
  EXPECT_EQ(caught([&] { table->queryWildCards(); }).code(), 1146);
}

}  // namespace
}  // namespace Tessel
