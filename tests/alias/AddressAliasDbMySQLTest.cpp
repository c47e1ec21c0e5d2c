// Tests of one alias table: its statements and its rows.
#include "alias/AddressAliasDbMySQL.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "alias/AddressAliasRow.h"
#include "alias/AliasTable.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "support/Caught.h"
#include "support/ExpectedLog.h"
#include "support/StatementHook.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr unsigned int s_logEmptyColumn = 0x300002b;

// An operation of the table `alias` and the statement that it sends, to its last character.
struct Operation {
  std::string statement;
  std::function<void(AddressAliasDbMySQL&)> run;
};

class AddressAliasDbMySQLOnServer : public Testing::AliasTable {
 protected:
  static std::vector<Operation> operations() {
    return {
        {"insert into alias ( name, members ) values( 'a@d.example','b@d.example,c@d.example') "
         "on duplicate key update members=values( members );",
         [](auto& table) {
           table.queryAdd(address("a@d.example"), addresses("c@d.example,b@d.example"));
         }},
        {"select * from alias;",
         [](auto& table) {
           AddressAliasDbMySQL::Cache cache(0);
           table.queryEntries(cache);
         }},
        {"select * from alias;",
         [](auto& table) {
           AddressAliasDbMySQL::Cache cache(10);
           table.queryEntries(cache);
         }},
        {"select * from alias;",
         [](auto& table) {
           AddressAliasDbMySQL::Entries entries;
           table.queryFindByDomain("*", entries);
         }},
        {"select * from alias where name like '%@d.example';",
         [](auto& table) {
           AddressAliasDbMySQL::Entries entries;
           table.queryFindByDomain("d.example", entries);
         }},
        {"select * from alias where members like '%b@d.example%';",
         [](auto& table) {
           AddressAliasDbMySQL::Entries entries;
           table.queryFindByMemberUser(address("b@d.example"), entries);
         }},
        {"select * from alias where name='a@d.example';",
         [](auto& table) {
           std::set<EmailAddress> members;
           table.queryFindMembers(address("a@d.example"), members);
         }},
        {"select name, members from alias;",
         [](auto& table) {
           std::set<EmailAddress> names;
           table.getAliasNames(names);
         }},
        {"delete from alias where name ='a@d.example';",
         [](auto& table) { table.queryDelete(address("a@d.example")); }},
        {"delete from alias where name like'%@d.example';",
         [](auto& table) { table.queryDelete("d.example"); }},
    };
  }
};

TEST_F(AddressAliasDbMySQLOnServer, EveryOperationSendsItsStatement) {
  for (const Operation& operation : operations()) {
    EXPECT_THAT(sentBy([&] {
                  AddressMapDbMySQL store(false);
                  AddressAliasDbMySQL table(store, false, "");
                  operation.run(table);
                }),
                ElementsAre(operation.statement));
  }
}

TEST_F(AddressAliasDbMySQLOnServer, AStatementWithoutAnAnswerIsSentOnceMore) {
  Testing::Relay relay;
  AddressMapDbMySQL store(false);
  AddressAliasDbMySQL table(store, false, "");
  for (const Operation& operation : operations()) {
    EXPECT_THAT(relay.sentWithoutAnswer([&] { operation.run(table); }),
                ElementsAre(operation.statement, operation.statement));
  }
}

TEST_F(AddressAliasDbMySQLOnServer, TheMutexIsHeldForEachStatementAndNoLonger) {
  for (const Operation& operation : operations()) {
    int statements = 0;
    const Testing::StatementHook hook([&](const std::string& statement) {
      EXPECT_FALSE(Testing::isFree(m_store->mutex())) << statement;
      ++statements;
    });
    operation.run(*m_table);
    EXPECT_EQ(statements, 1);
    EXPECT_TRUE(Testing::isFree(m_store->mutex())) << operation.statement;
  }
}

TEST_F(AddressAliasDbMySQLOnServer, TheMutexIsFreeAfterEveryFailure) {
  const Testing::StatementHook hook(
      [](const std::string& /*statement*/) { throw Exception("hook", 4, nullptr, 0); });
  for (const Operation& operation : operations()) {
    EXPECT_EQ(caught([&] { operation.run(*m_table); }).context(), "hook");
    EXPECT_TRUE(Testing::isFree(m_store->mutex())) << operation.statement;
  }
}

TEST_F(AddressAliasDbMySQLOnServer, EntriesAreAddedUnderTheMutexThroughTheVirtualAdd) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@d.example", "m@d.example");
  for (const unsigned int capacity : {0U, 10U}) {
    Testing::WatchingCache<AddressAliasDbMySQL::Cache> cache(capacity, m_store->mutex());
    m_table->queryEntries(cache);
    EXPECT_EQ(cache.m_added, 2);
    EXPECT_EQ(cache.m_freeWhenAdding, 0);
  }
}

TEST_F(AddressAliasDbMySQLOnServer, AStoreNameIsAppendedToTheTableName) {
  createAliasTable(m_store->connection(), "alias_sales");
  const AddressAliasDbMySQL table(*m_store, false, "sales");
  std::set<EmailAddress> names;
  EXPECT_THAT(statementsOf([&] { table.getAliasNames(names); }),
              ElementsAre("select name, members from alias_sales"));
}

TEST_F(AddressAliasDbMySQLOnServer, AddressesAreEscapedWhereTheyAreNamesAndNotWhereTheyAreMembers) {
  const EmailAddress name = address("o'brien@d.example");
  std::set<EmailAddress> members;
  EXPECT_THAT(statementsOf([&] {
                m_table->queryAdd(name, addresses("b@d.example"));
                m_table->queryFindMembers(name, members);
                m_table->queryDelete(name);
              }),
              ElementsAre("insert into alias ( name, members ) values( 'o\\'brien@d.example',"
                          "'b@d.example') on duplicate key update members=values( members )",
                          "select * from alias where name='o\\'brien@d.example'",
                          "delete from alias where name ='o\\'brien@d.example'"));
  EXPECT_EQ(members, addresses("b@d.example"));
  const Exception got =
      caught([&] { m_table->queryAdd(address("a@d.example"), addresses("o'brien@d.example")); });
  EXPECT_EQ(got.code(), 1064) << got.what();
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(AddressAliasDbMySQLOnServer, TheDomainIsRawAndItsPatternCharactersMatchAnything) {
  addAlias("a@xy.example", "m@d.example");
  addAlias("a@x_.example", "m@d.example");
  AddressAliasDbMySQL::Entries entries;
  m_table->queryFindByDomain("x_.example", entries);
  EXPECT_EQ(entries.size(), 2U);
  m_table->queryDelete("%.example");
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(AddressAliasDbMySQLOnServer, TheStarReturnsEveryAliasAndADomainItsOwn) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@d.example", "m@d.example,n@d.example");
  addAlias("a@sub.d.example", "m@d.example");
  AddressAliasDbMySQL::Entries all;
  m_table->queryFindByDomain("*", all);
  EXPECT_EQ(all.size(), 3U);
  AddressAliasDbMySQL::Entries some;
  m_table->queryFindByDomain("d.example", some);
  EXPECT_THAT(some,
              ElementsAre(Pair(address("a@d.example"), addresses("m@d.example")),
                          Pair(address("b@d.example"), addresses("m@d.example,n@d.example"))));
}

TEST_F(AddressAliasDbMySQLOnServer, MapFillingLookupsKeepWhatTheMapHolds) {
  addAlias("a@d.example", "m@d.example");
  AddressAliasDbMySQL::Entries entries;
  entries[address("old@d.example")];
  entries[address("a@d.example")] = addresses("stale@d.example");
  m_table->queryFindByDomain("*", entries);
  EXPECT_THAT(entries, ElementsAre(Pair(address("a@d.example"), addresses("m@d.example")),
                                   Pair(address("old@d.example"), IsEmpty())));
}

TEST_F(AddressAliasDbMySQLOnServer, EveryListingAddsToWhatIsThere) {
  addAlias("a@d.example", "m@d.example");
  const EmailAddress old = address("old@e.example");
  AddressAliasDbMySQL::Entries ofDomain{{old, {old}}};
  m_table->queryFindByDomain("d.example", ofDomain);
  EXPECT_THAT(ofDomain, ElementsAre(Pair(address("a@d.example"), addresses("m@d.example")),
                                    Pair(old, ElementsAre(old))));
  AddressAliasDbMySQL::Entries ofMember{{old, {old}},
                                        {address("a@d.example"), addresses("stale@d.example")}};
  m_table->queryFindByMemberUser(address("m@d.example"), ofMember);
  EXPECT_EQ(ofMember, ofDomain);
  std::set<EmailAddress> names{old};
  m_table->getAliasNames(names);
  EXPECT_THAT(names, ElementsAre(address("a@d.example"), old));
}

TEST_F(AddressAliasDbMySQLOnServer, AddingAnExistingAliasReplacesItsMembersAndLeavesAllUsers) {
  addAlias("a@d.example", "m@d.example");
  sql("update ts_address_map.alias set all_users=7");
  m_table->queryAdd(address("a@d.example"), addresses("n@d.example,o@d.example"));
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "n@d.example,o@d.example", "7"}}));
}

TEST_F(AddressAliasDbMySQLOnServer, AnAliasOfAnotherLetterCaseIsTheSameRow) {
  m_table->queryAdd(address("a@d.example"), addresses("m@d.example"));
  m_table->queryAdd(address("A@D.example"), addresses("n@d.example"));
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "n@d.example", "0"}}));
  std::set<EmailAddress> members;
  m_table->queryFindMembers(address("a@D.EXAMPLE"), members);
  EXPECT_EQ(members, addresses("n@d.example"));
}

TEST_F(AddressAliasDbMySQLOnServer, ARowThatOnlyTheCollationCallsEqualIsNotTheAlias) {
  addAlias("\xc3\x89ric@d.example", "m@d.example");
  std::set<EmailAddress> members;
  m_table->queryFindMembers(address("\xc3\xa9ric@d.example"), members);
  EXPECT_THAT(members, IsEmpty());
}

TEST_F(AddressAliasDbMySQLOnServer, AnEmptyMemberSetIsStoredAndComesBackAsABrokenRow) {
  m_table->queryAdd(address("a@d.example"), {});
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "", "0"}}));
  AddressAliasDbMySQL::Entries entries;
  m_table->queryFindByDomain("*", entries);
  EXPECT_THAT(entries, ElementsAre(Pair(EmailAddress(), IsEmpty())));
  const auto log = Testing::takeLog();
  ASSERT_EQ(log.size(), 1U);
  EXPECT_EQ(log[0].code, s_logEmptyColumn);
  EXPECT_EQ(log[0].number, 0);
  EXPECT_EQ(log[0].text, " ");
}

TEST_F(AddressAliasDbMySQLOnServer, ARowWithAnEmptyColumnIsLoggedAndKept) {
  addAlias("", "m@d.example");
  addAlias("b@d.example", "m@d.example");
  std::set<EmailAddress> names;
  m_table->getAliasNames(names);
  EXPECT_THAT(names, ElementsAre(EmailAddress(), address("b@d.example")));
  EXPECT_EQ(Testing::takeLog().size(), 1U);
}

TEST_F(AddressAliasDbMySQLOnServer, ARowThatDoesNotParseFailsTheWholeRead) {
  addAlias("no address", "m@d.example");
  std::set<EmailAddress> names;
  const Exception got = caught([&] { m_table->getAliasNames(names); });
  EXPECT_EQ(got.context(), "EmailAddress::rfc5321Parse");
  EXPECT_TRUE(Testing::isFree(m_store->mutex()));
  // The connection is free again.
  sql("delete from ts_address_map.alias");
  EXPECT_NO_THROW(m_table->getAliasNames(names));
}

TEST_F(AddressAliasDbMySQLOnServer, OfARowTheNameIsABareAddressAndTheMembersAreALooseList) {
  AddressAliasDbMySQL::Entries entries;
  for (const char* name : {"nodomain", "Team <a@d.example>"}) {
    sql("delete from ts_address_map.alias");
    addAlias(name, "m@d.example");
    EXPECT_EQ(caught([&] { m_table->queryFindByDomain("*", entries); }).context(),
              "EmailAddress::rfc5321Parse");
  }
  sql("delete from ts_address_map.alias");
  addAlias("a@d.example", "Group: m@d.example;");
  EXPECT_EQ(caught([&] { m_table->queryFindByDomain("*", entries); }).context(),
            "EmailAddress::rfc5322ParseSet");
  sql("update ts_address_map.alias set members='M <m@d.example>, nodomain'");
  m_table->queryFindByDomain("*", entries);
  EXPECT_THAT(entries,
              ElementsAre(Pair(address("a@d.example"), addresses("m@d.example,nodomain"))));
}

// Parser that notes what parsing each row returned.
class Outcomes : public Database::AllRowParser {
 public:
  void parse(void* connection, void* result) override {
    for (std::int64_t i = 0; i < db_result_row_num(result); ++i) {
      AddressAliasRow row;
      m_outcomes.push_back(row.parse(connection, result, db_result_fetch_row(result, i)));
    }
  }
  std::vector<bool> m_outcomes;
};

TEST_F(AddressAliasDbMySQLOnServer, ParsingARowTellsWhetherItWasWhole) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@d.example", "");
  addAlias("", "m@d.example");
  Outcomes parser;
  Database::Query query(m_store->connection(), &parser, true);
  query << "select * from alias order by name desc";
  query.execute();
  EXPECT_THAT(parser.m_outcomes, ElementsAre(false, true, false));
  EXPECT_EQ(Testing::takeLog().size(), 2U);
}

TEST_F(AddressAliasDbMySQLOnServer, FindingTheMembersOfAnUnknownAliasLeavesTheSetAsItWas) {
  std::set<EmailAddress> members = addresses("kept@d.example");
  m_table->queryFindMembers(address("unknown@d.example"), members);
  EXPECT_EQ(members, addresses("kept@d.example"));
}

TEST_F(AddressAliasDbMySQLOnServer, FindingMembersReplacesTheSet) {
  addAlias("a@d.example", "m@d.example");
  std::set<EmailAddress> members = addresses("old@d.example");
  m_table->queryFindMembers(address("a@d.example"), members);
  EXPECT_EQ(members, addresses("m@d.example"));
}

TEST_F(AddressAliasDbMySQLOnServer, FindingByMemberMatchesSubstrings) {
  addAlias("exact@d.example", "bob@d.example,x@d.example");
  addAlias("longer@d.example", "jimbob@d.example");
  addAlias("other@d.example", "tim@d.example");
  AddressAliasDbMySQL::Entries entries;
  m_table->queryFindByMemberUser(address("bob@d.example"), entries);
  EXPECT_THAT(entries, UnorderedElementsAre(Pair(address("exact@d.example"), testing::_),
                                            Pair(address("longer@d.example"), testing::_)));
}

TEST_F(AddressAliasDbMySQLOnServer, DeletingTakesOutOneAliasOrADomain) {
  for (const char* name : {"a@d.example", "b@d.example", "c@e.example"}) {
    addAlias(name, "m@d.example");
  }
  m_table->queryDelete(address("unknown@d.example"));
  EXPECT_EQ(rows().size(), 3U);
  m_table->queryDelete(address("a@d.example"));
  EXPECT_EQ(rows().size(), 2U);
  m_table->queryDelete(std::string("d.example"));
  EXPECT_EQ(rows(), (Rows{{"c@e.example", "m@d.example", "0"}}));
}

TEST_F(AddressAliasDbMySQLOnServer, TheStarIsNoDomainWhenDeleting) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@*", "m@d.example");
  m_table->queryDelete(std::string("*"));
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "m@d.example", "0"}}));
}

TEST_F(AddressAliasDbMySQLOnServer, MembersAreWrittenInAscendingOrderJoinedByCommas) {
  std::ostringstream text;
  AddressAliasDbMySQL::writeMemberSet(
      addresses("b@z.example, a@z.example, \"q q\"@z.example, allusers_z.example"), text);
  EXPECT_EQ(text.str(), "a@z.example,allusers_z.example,b@z.example,\"q q\"@z.example");
  std::ostringstream empty;
  AddressAliasDbMySQL::writeMemberSet({}, empty);
  EXPECT_EQ(empty.str(), "");
}

TEST_F(AddressAliasDbMySQLOnServer, EntriesGoToTheCacheInResultOrder) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@d.example", "m@d.example");
  LRUCache<EmailAddress, std::set<EmailAddress>> cache(10);
  m_table->queryEntries(cache);
  EXPECT_EQ(cache.size(), 2U);
  EXPECT_EQ(cache.begin()->first, address("b@d.example"));
}

TEST_F(AddressAliasDbMySQLOnServer, ARowThatDoesNotParseFailsThePreload) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@d.example", "no address");
  EXPECT_EQ(caught([&] { AddressAliasDbMySQL(*m_store, true, ""); }).context(),
            "EmailAddress::rfc5322ParseSet");
}

TEST_F(AddressAliasDbMySQLOnServer, PreloadCountsTheRowsAndCachesNothing) {
  addAlias("a@d.example", "m@d.example");
  addAlias("b@d.example", "m@d.example");
  addAlias("empty@d.example", "");
  std::unique_ptr<AddressAliasDbMySQL> table;
  EXPECT_THAT(
      statementsOf([&] { table = std::make_unique<AddressAliasDbMySQL>(*m_store, true, ""); }),
      ElementsAre("select * from alias"));
  EXPECT_EQ(Testing::takeLog().size(), 1U);
  // Three rows and no cached alias: an address is asked for at the table.
  EXPECT_FALSE(table->isEveryAliasCached());
  EXPECT_THAT(
      statementsOf([&] { EXPECT_THAT(table->expandAlias(address("x@d.example")), IsEmpty()); }),
      ElementsAre("select * from alias where name='x@d.example'"));
}

TEST_F(AddressAliasDbMySQLOnServer, ATableMadeWithoutPreloadAsksNothing) {
  addAlias("a@d.example", "m@d.example");
  EXPECT_TRUE(m_table->isEveryAliasCached());
  EXPECT_THAT(statementsOf([&] {
                const AddressAliasDbMySQL table(*m_store, false, "");
                EXPECT_THAT(table.expandAlias(address("a@d.example")), IsEmpty());
              }),
              IsEmpty());
}

TEST_F(AddressAliasDbMySQLOnServer, AMissingTableFailsEveryOperationWithTheServersError) {
  AddressAliasDbMySQL table(*m_store, false, "missing");
  AddressAliasDbMySQL::Entries entries;
  std::set<EmailAddress> members;
  LRUCache<EmailAddress, std::set<EmailAddress>> cache(0);
  const EmailAddress alias = address("a@d.example");
  EXPECT_EQ(caught([&] { table.queryEntries(cache); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.queryFindByDomain("*", entries); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.queryFindByMemberUser(alias, entries); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.queryFindMembers(alias, members); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.queryAdd(alias, members); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.queryDelete(alias); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.queryDelete(std::string("d")); }).code(), 1146);
  EXPECT_EQ(caught([&] { table.getAliasNames(members); }).code(), 1146);
  EXPECT_EQ(caught([&] { AddressAliasDbMySQL(*m_store, true, "missing"); }).code(), 1146);
}

TEST_F(AddressAliasDbMySQLOnServer, ManyThreadsMayUseTheTablesOfOneStore) {
  createAliasTable(m_store->connection(), "alias_two");
  AddressAliasDbMySQL other(*m_store, false, "two");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      AddressAliasDbMySQL& table = t % 2 == 0 ? *m_table : other;
      for (int n = 0; n < 25; ++n) {
        const EmailAddress alias =
            address("n" + std::to_string(n) + "t" + std::to_string(t) + "@d.example");
        table.queryAdd(alias, addresses("m@d.example"));
        std::set<EmailAddress> members;
        table.queryFindMembers(alias, members);
        EXPECT_EQ(members.size(), 1U);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(rows().size(), 50U);
}

}  // namespace
}  // namespace Tessel
