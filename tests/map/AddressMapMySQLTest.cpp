// Tests of the MySQL store: schema, preparation of the database, and its recovery.
#include "map/AddressMapMySQL.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "map/AddressAliasDbImpl.h"
#include "map/AddressMaskDbImpl.h"
#include "support/Caught.h"
#include "support/MapDatabase.h"
#include "support/StatementHook.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::Contains;
using testing::ElementsAre;
using Testing::expectFacts;
using testing::IsEmpty;

class AddressMapMySQLOnServer : public Testing::MapDatabase {
 protected:
  static std::vector<std::string> column(const Rows& rows, std::size_t index) {
    std::vector<std::string> values;
    for (const auto& row : rows) values.push_back(row.at(index));
    return values;
  }

  static std::vector<std::string> tables() {
    return column(sql("select table_name from information_schema.tables "
                      "where table_schema='ts_address_map' order by 1"),
                  0);
  }

  // name, type, nullable, default of each column of `table`, in order.
  static Rows columns(const std::string& table) {
    return sql(
        "select column_name, column_type, is_nullable, coalesce(column_default,'-') "
        "from information_schema.columns where table_schema='ts_address_map' and "
        "table_name='" +
        table + "' order by ordinal_position");
  }

  // Names of the unique indexes of `table`.
  static std::vector<std::string> uniqueIndexes(const std::string& table) {
    return column(sql("select distinct index_name from information_schema.statistics where "
                      "table_schema='ts_address_map' and non_unique=0 and table_name='" +
                      table + "' order by 1"),
                  0);
  }

  static std::string count(const std::string& table) {
    return sql("select count(*) from ts_address_map." + table).at(0).at(0);
  }

  // The statements beginning with `start` that `initialize` sends.
  static std::vector<std::string> sentByInitialize(const std::string& start, bool clear) {
    auto sent = sentBy([=] { AddressMapDb::initialize(AddressMapDb::MySQL, clear); });
    std::erase_if(sent, [&](const std::string& text) { return !text.starts_with(start); });
    return sent;
  }

  // Replaces `alias` by one of the schema without the column all_users, with one row.
  static void makeOldAliasTable() {
    sql("drop table ts_address_map.alias");
    sql("create table ts_address_map.alias ( name varchar( 255 ) primary key not null, "
        "members text not null ) engine=InnoDB");
    addAlias("a@d.example", "b@d.example");
  }
};

TEST_F(AddressMapMySQLOnServer, InitializeCreatesTheDatabaseWithEmptyBaseTables) {
  sql("drop database ts_address_map");
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  EXPECT_THAT(tables(), ElementsAre("alias", "mask"));
  EXPECT_EQ(count("alias"), "0");
  EXPECT_EQ(count("mask"), "0");
}

TEST_F(AddressMapMySQLOnServer, TheAliasTableHasItsColumns) {
  EXPECT_THAT(columns("alias"), ElementsAre(ElementsAre("name", "varchar(255)", "NO", "-"),
                                            ElementsAre("members", "mediumtext", "NO", "-"),
                                            ElementsAre("all_users", "tinyint(4)", "NO", "0")));
  EXPECT_THAT(uniqueIndexes("alias"), Contains("PRIMARY"));
  EXPECT_EQ(sql("select engine from information_schema.tables where "
                "table_schema='ts_address_map' and table_name='alias'"),
            (Rows{{"InnoDB"}}));
}

TEST_F(AddressMapMySQLOnServer, TheMaskTableHasItsColumnsAndIndexes) {
  EXPECT_THAT(columns("mask"), ElementsAre(ElementsAre("private", "varchar(255)", "NO", "-"),
                                           ElementsAre("public", "varchar(255)", "NO", "-")));
  EXPECT_THAT(uniqueIndexes("mask"), ElementsAre("PRIMARY", "private", "public"));
}

TEST_F(AddressMapMySQLOnServer, InitializeOnAServerWithoutTheDatabaseSendsTheseStatements) {
  for (const bool clear : {false, true}) {
    sql("drop database ts_address_map");
    EXPECT_THAT(sentBy([=] { AddressMapDb::initialize(AddressMapDb::MySQL, clear); }),
                ElementsAre("Create database ts_address_map;",
                            "create table mask(\n"
                            " private varchar( 255 ) primary key,\n"
                            " public varchar( 255 ) not null )\n"
                            " engine=InnoDB;",
                            "create unique index private on mask( private );",
                            "create unique index public on mask( public );",
                            "create table if not exists alias(\n"
                            " name varchar( 255 ) unique primary key not null,\n"
                            " members MEDIUMTEXT not null, \n"
                            " all_users tinyint not null default 0)\n"
                            " engine=InnoDB;"));
  }
}

TEST_F(AddressMapMySQLOnServer, InitializeSelectsTheServersOwnDatabaseFirst) {
  Testing::GeneralLog log(Testing::TestServer::shared());
  const Testing::Relay relay;  // New connections only.
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  std::vector<std::string> selected;
  for (const auto& entry : log.entriesSince()) {
    if (entry.command == "Init DB") selected.push_back(entry.text);
  }
  EXPECT_THAT(selected, ElementsAre("mysql", "ts_address_map"));
}

TEST_F(AddressMapMySQLOnServer, InitializeUpgradesAnOldAliasTableOnce) {
  makeOldAliasTable();
  // Without a semicolon.
  EXPECT_THAT(sentByInitialize("ALTER", false),
              ElementsAre("ALTER TABLE alias ADD all_users TINYINT NOT NULL DEFAULT 0",
                          "ALTER TABLE alias MODIFY members MEDIUMTEXT NOT NULL"));
  EXPECT_THAT(columns("alias"), Contains(ElementsAre("members", "mediumtext", "NO", "-")));
  EXPECT_EQ(sql("select name, members, all_users from ts_address_map.alias"),
            (Rows{{"a@d.example", "b@d.example", "0"}}));

  EXPECT_THAT(sentByInitialize("ALTER", false), IsEmpty());
}

TEST_F(AddressMapMySQLOnServer, ATableWithAllUsersIsNotAlteredWhateverItsMembersColumn) {
  sql("alter table ts_address_map.alias modify members text not null");
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  EXPECT_THAT(columns("alias"), Contains(ElementsAre("members", "text", "NO", "-")));
}

TEST_F(AddressMapMySQLOnServer, InitializeWithClearEmptiesTheBaseTablesOnly) {
  Database::Connection connection("ts_address_map");
  createAliasTable(connection, "alias_n");
  createMaskTable(connection, "mask_n");
  addAlias("a@d.example", "b@d.example");
  addAlias("a@d.example", "b@d.example", "alias_n");
  sql("insert into ts_address_map.mask values( 'p@d.example','q@d.example' )");
  sql("insert into ts_address_map.mask_n values( 'p@d.example','q@d.example' )");
  EXPECT_THAT(sentByInitialize("DELETE", true),
              ElementsAre("DELETE FROM mask;", "DELETE FROM alias;"));
  EXPECT_EQ(count("alias"), "0");
  EXPECT_EQ(count("mask"), "0");
  EXPECT_EQ(count("alias_n"), "1");
  EXPECT_EQ(count("mask_n"), "1");
}

TEST_F(AddressMapMySQLOnServer, InitializeWithoutClearKeepsTheRows) {
  addAlias("a@d.example", "b@d.example");
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  EXPECT_EQ(count("alias"), "1");
}

TEST_F(AddressMapMySQLOnServer, InitializeCreatesOnlyAMissingMaskTable) {
  addAlias("a@d.example", "b@d.example");
  sql("drop table ts_address_map.mask");
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  EXPECT_THAT(tables(), ElementsAre("alias", "mask"));
  EXPECT_EQ(count("alias"), "1");
}

TEST_F(AddressMapMySQLOnServer, InitializeCreatesOnlyAMissingAliasTable) {
  sql("insert into ts_address_map.mask values( 'p@d.example','q@d.example' )");
  sql("drop table ts_address_map.alias");
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  EXPECT_THAT(tables(), ElementsAre("alias", "mask"));
  EXPECT_EQ(count("mask"), "1");
}

TEST_F(AddressMapMySQLOnServer, AFailedUpgradeLeavesAFreshDatabase) {
  // A view of the name cannot be altered.
  sql("drop table ts_address_map.alias");
  sql("create table ts_address_map.alias_kept ( name varchar( 255 ) )");
  sql("create view ts_address_map.alias as select name from ts_address_map.alias_kept");
  sql("insert into ts_address_map.mask values( 'p@d.example','q@d.example' )");
  EXPECT_NO_THROW(AddressMapDb::initialize(AddressMapDb::MySQL, false));
  EXPECT_THAT(tables(), ElementsAre("alias", "mask"));
  EXPECT_EQ(count("mask"), "0");
}

TEST_F(AddressMapMySQLOnServer, AFailedClearLeavesAFreshDatabase) {
  Database::Connection connection("ts_address_map");
  createAliasTable(connection, "alias_n");
  addAlias("a@d.example", "b@d.example", "alias_n");
  sql("create trigger ts_address_map.refuse before delete on ts_address_map.mask for each row "
      "signal sqlstate '45000' set message_text='refused'");
  sql("insert into ts_address_map.mask values( 'p@d.example','q@d.example' )");
  EXPECT_NO_THROW(AddressMapDb::initialize(AddressMapDb::MySQL, true));
  EXPECT_THAT(tables(), ElementsAre("alias", "mask"));
}

TEST_F(AddressMapMySQLOnServer, CreatingAMaskTableTwiceFails) {
  Database::Connection connection("ts_address_map");
  const Exception got = caught([&] { createMaskTable(connection, "mask"); });
  expectFacts(got, "Address Mask Creation", 4, "AddressMapMySQL", 33);
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1050);
  EXPECT_EQ(got.cause()->cause(), nullptr);
}

TEST_F(AddressMapMySQLOnServer, EveryStatementOfAMaskTableMayFail) {
  Database::Connection connection("ts_address_map");
  for (int failing = 0; failing < 3; ++failing) {
    const std::string table = "mask_" + std::to_string(failing);
    int statements = 0;
    const Testing::StatementHook hook([&](const std::string& /*statement*/) {
      if (statements++ == failing) throw Exception("hook", 4, nullptr, 0);
    });
    const Exception got = caught([&] { createMaskTable(connection, table); });
    expectFacts(got, "Address Mask Creation", 4, "AddressMapMySQL", 33);
    ASSERT_NE(got.cause(), nullptr);
    EXPECT_EQ(got.cause()->context(), "hook");
    EXPECT_EQ(got.cause()->cause(), nullptr);
    EXPECT_EQ(statements, failing + 1);
  }
  EXPECT_THAT(tables(), ElementsAre("alias", "mask", "mask_1", "mask_2"));
  EXPECT_THAT(uniqueIndexes("mask_1"), ElementsAre("PRIMARY"));
  EXPECT_THAT(uniqueIndexes("mask_2"), ElementsAre("PRIMARY", "private"));
}

TEST_F(AddressMapMySQLOnServer, OtherExceptionsPassUnwrappedAndDropNothing) {
  addAlias("a@d.example", "b@d.example");
  std::string failing;
  const Testing::StatementHook hook([&](const std::string& statement) {
    if (statement.starts_with(failing)) throw std::runtime_error("no Exception");
  });
  Database::Connection connection("ts_address_map");
  failing = "create";
  EXPECT_THROW(createMaskTable(connection, "mask_n"), std::runtime_error);
  EXPECT_THROW(createAliasTable(connection, "alias_n"), std::runtime_error);
  failing = "DELETE";
  EXPECT_THROW(AddressMapDb::initialize(AddressMapDb::MySQL, true), std::runtime_error);
  EXPECT_EQ(count("alias"), "1");
  sql("drop database ts_address_map");
  failing = "Create";
  EXPECT_THROW(AddressMapDb::initialize(AddressMapDb::MySQL, true), std::runtime_error);
}

TEST_F(AddressMapMySQLOnServer, OnlyStatementsThatMayBeRepeatedAreSentOnceMore) {
  Testing::Relay relay;
  Database::Connection connection("ts_address_map");
  EXPECT_THAT(relay.sentWithoutAnswer([&] { createAliasTable(connection, "alias_n"); }).size(), 2U);
  EXPECT_THAT(relay
                  .sentWithoutAnswer(
                      [&] { EXPECT_THROW(createMaskTable(connection, "mask_n"), Exception); })
                  .size(),
              1U);
}

TEST_F(AddressMapMySQLOnServer, AConnectionThatBreaksWhileTheTablesAreEmptiedDropsNothing) {
  Testing::Relay relay;
  Database::Connection connection("ts_address_map");
  createAliasTable(connection, "alias_n");
  int broken = 0;
  const Testing::StatementHook hook([&](const std::string& statement) {
    if (!statement.starts_with("DELETE")) return;
    relay.relay().cutAfter(Testing::SocketRelay::Direction::ToClient, 0);
    ++broken;
  });
  AddressMapDb::initialize(AddressMapDb::MySQL, true);
  EXPECT_EQ(broken, 2);
  auto sent = relay.statements();
  std::erase_if(sent, [](const std::string& text) { return !text.starts_with("DELETE"); });
  EXPECT_THAT(sent, ElementsAre("DELETE FROM mask;", "DELETE FROM mask;", "DELETE FROM alias;",
                                "DELETE FROM alias;"));
  EXPECT_THAT(tables(), Contains("alias_n"));
}

TEST_F(AddressMapMySQLOnServer, CreatingAnAliasTableTwiceChangesNothing) {
  Database::Connection connection("ts_address_map");
  addAlias("a@d.example", "b@d.example");
  EXPECT_NO_THROW(createAliasTable(connection, "alias"));
  EXPECT_EQ(count("alias"), "1");
}

TEST_F(AddressMapMySQLOnServer, AFailedAliasTableCreationCarriesItsCause) {
  Database::Connection connection("ts_address_map");
  const Exception got = caught([&] { createAliasTable(connection, "alias_a b"); });
  expectFacts(got, "Address Alias Creation", 4, "AddressMapMySQL", 56);
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1064);
}

TEST_F(AddressMapMySQLOnServer, NamedTablesAreCreatedInTheirOwnRight) {
  Database::Connection connection("ts_address_map");
  createAliasTable(connection, "alias_sales");
  createMaskTable(connection, "mask_sales");
  EXPECT_THAT(tables(), ElementsAre("alias", "alias_sales", "mask", "mask_sales"));
  EXPECT_THAT(uniqueIndexes("mask_sales"), ElementsAre("PRIMARY", "private", "public"));
}

TEST_F(AddressMapMySQLOnServer, ConnectingRunsNoSqlAndMakesTablesOfTheGivenPreload) {
  EXPECT_THAT(statementsOf([] {
                AddressMapDbMySQL store(false);
                delete store.createAliasDbImpl("");
                delete store.createMaskDbImpl("");
              }),
              IsEmpty());
  EXPECT_THAT(statementsOf([] {
                AddressMapDbMySQL store(true);
                delete store.createAliasDbImpl("");
              }),
              ElementsAre("select * from alias"));
}

TEST_F(AddressMapMySQLOnServer, AddressesThatDifferInCaseAreOneRowAndInAccentsTwo) {
  addAlias("bob@d.example", "x@d.example");
  EXPECT_THROW(addAlias("BOB@d.example", "x@d.example"), Exception);
  addAlias("jose@d.example", "x@d.example");
  EXPECT_NO_THROW(addAlias("jos\xc3\xa9@d.example", "x@d.example"));
}

// A server account of its own, limited to what `grants` gives it, for as long as it lives.
class LimitedAccount {
 public:
  explicit LimitedAccount(const std::string& grants)
      : m_options(Testing::TestServer::shared().useAccount("limited", "secret", grants)) {}

 private:
  Testing::TestServer::OptionFile m_options;
};

// What `initialize` throws for an account with the rights that `grants` gives it.
Exception s_failureOfInitialize(const std::string& grants) {
  const LimitedAccount account("grant select on mysql.* to limited@localhost; " + grants);
  return caught([] { AddressMapDb::initialize(AddressMapDb::MySQL, false); });
}

TEST_F(AddressMapMySQLOnServer, ADatabaseThatMayNotBeCreatedIsReported) {
  sql("drop database ts_address_map");
  const Exception got =
      s_failureOfInitialize("grant drop on ts_address_map.* to limited@localhost");
  expectFacts(got, "AddressMapCreation", 4, "AddressMapMySQL", 79);
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1044);
  EXPECT_EQ(got.cause()->cause(), nullptr);
}

TEST_F(AddressMapMySQLOnServer, ATableThatMayNotBeCreatedIsReportedDoublyWrapped) {
  sql("drop database ts_address_map");
  const Exception got =
      s_failureOfInitialize("grant create, drop on ts_address_map.* to limited@localhost");
  expectFacts(got, "AddressMapCreation", 4, "AddressMapMySQL", 79);
  ASSERT_NE(got.cause(), nullptr);
  expectFacts(*got.cause(), "Address Mask Creation", 4, "AddressMapMySQL", 33);
  ASSERT_NE(got.cause()->cause(), nullptr);
  EXPECT_EQ(got.cause()->cause()->code(), 1142);
}

TEST_F(AddressMapMySQLOnServer, AnAccountThatMayNotDropLosesNothing) {
  addAlias("a@d.example", "b@d.example");
  sql("drop table ts_address_map.mask");
  const Exception got =
      s_failureOfInitialize("grant select on ts_address_map.* to limited@localhost");
  EXPECT_EQ(got.code(), 1044) << got.what();
  EXPECT_EQ(count("alias"), "1");
}

TEST_F(AddressMapMySQLOnServer, AnAccountWithoutARightToTheServersOwnDatabaseDropsNothing) {
  addAlias("a@d.example", "b@d.example");
  const LimitedAccount account("grant all on ts_address_map.* to limited@localhost");
  const Exception got = caught([] { AddressMapDb::initialize(AddressMapDb::MySQL, true); });
  EXPECT_EQ(got.code(), 1044) << got.what();
  EXPECT_EQ(count("alias"), "1");
}

}  // namespace
}  // namespace Tessel
