// The C functions on alias tables: the cases in C, the statements that they send, and their
// records.
#include "tsl_address_map.h"

#include <cstddef>
#include <memory>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Caught.h"
#include "support/ExpectedLog.h"
#include "support/MapDatabase.h"
#include "tests/capi/CallRecorder.h"
#include "tests/capi/cases.h"

namespace Tessel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AliasInterface : public Testing::MapDatabase {
 protected:
  static Rows rows() { return sql("select name, members from ts_address_map.alias order by name"); }
};

#define TSL_ALIAS_CASE(name, function)                       \
  TEST_F(AliasInterface, name) {                             \
    EXPECT_EQ(function(), 0) << "the line in alias_cases.c"; \
  }

TSL_ALIAS_CASE(AddFindErase, tsl_alias_case_add_find_erase)
TSL_ALIAS_CASE(AddReplacesTheMembers, tsl_alias_case_add_replaces_members)
TSL_ALIAS_CASE(MembersComeSortedAndPlain, tsl_alias_case_members_come_sorted)
TSL_ALIAS_CASE(IncompleteEntriesAreRefused, tsl_alias_case_incomplete_entries_are_refused)
TSL_ALIAS_CASE(MalformedMembersAreRefused, tsl_alias_case_malformed_members_are_refused)
TSL_ALIAS_CASE(TheListOfADomainIsSortedAndEnded, tsl_alias_case_list_of_a_domain)
TSL_ALIAS_CASE(TheListOfADomainWithoutAliasesIsNull, tsl_alias_case_list_of_nothing_is_null)
TSL_ALIAS_CASE(EraseByDomain, tsl_alias_case_erase_by_domain)
TSL_ALIAS_CASE(EraseMemberUserRemovesEmptiedAliases, tsl_alias_case_erase_member_user)
TSL_ALIAS_CASE(EraseMemberUserOfNoAlias, tsl_alias_case_erase_member_user_of_no_alias)
TSL_ALIAS_CASE(Expand, tsl_alias_case_expand)
TSL_ALIAS_CASE(ExpandingNoAliasGivesAnEmptyContainer, tsl_alias_case_expand_no_alias_is_empty)
TSL_ALIAS_CASE(NullArgumentsAreRefused, tsl_alias_case_null_arguments)
TSL_ALIAS_CASE(EndingNullDoesNothing, tsl_alias_case_null_ends_nothing)
TSL_ALIAS_CASE(AListWithOnlyItsEnd, tsl_alias_case_list_with_only_its_end)
TSL_ALIAS_CASE(NamedTables, tsl_alias_case_named_tables)
TSL_ALIAS_CASE(TheTableFunctionsTakeTheEmptyNameForAnotherTable,
               tsl_alias_case_empty_name_of_the_table_functions)
TSL_ALIAS_CASE(CreatingATableTwiceKeepsIt, tsl_alias_case_table_create_twice)

TEST_F(AliasInterface, AnAliasWithoutMembersIsNotFound) {
  EXPECT_EQ(tsl_alias_case_no_members_is_no_alias(), 0) << "the line in alias_cases.c";
  EXPECT_EQ(Testing::takeLog().size(), 1U);
}

TEST_F(AliasInterface, Files) {
  const std::string path = Testing::TestServer::shared().directory() + "/aliases";
  EXPECT_EQ(tsl_alias_case_files(path.c_str()), 0) << "the line in alias_cases.c";
}

TEST_F(AliasInterface, RecordsAreLaidOutAsTwoPointers) {
  static_assert(std::is_standard_layout_v<tsl_address_alias_entry>);
  EXPECT_EQ(offsetof(tsl_address_alias_entry, name), 0U);
  EXPECT_EQ(offsetof(tsl_address_alias_entry, members), sizeof(void*));
  EXPECT_EQ(sizeof(tsl_address_alias_entry), 2 * sizeof(void*));
}

TEST_F(AliasInterface, EachFunctionSendsItsStatements) {
  sql("create table ts_address_map.alias_gone ( a int )");
  addAlias("team@d.example", "bob@d.example,carl@d.example");
  tsl_address_map map = tsl_address_alias_create();
  tsl_emailaddress team = tsl_emailaddress_parse("team@d.example");
  tsl_emailaddress bob = tsl_emailaddress_parse("bob@d.example");
  const tsl_address_alias_entry entry{team, "bob@d.example"};
  EXPECT_THAT(statementsOf([&] { tsl_address_alias_destroy(tsl_address_alias_create()); }),
              IsEmpty());
  EXPECT_THAT(
      statementsOf([&] {
        EXPECT_EQ(tsl_address_alias_erase_member_user(map, bob, nullptr), 0);
        EXPECT_EQ(tsl_address_alias_add(map, &entry, nullptr), 0);
        EXPECT_EQ(tsl_address_alias_erase_member_user(map, bob, nullptr), 0);
        EXPECT_EQ(tsl_address_alias_find(map, team, nullptr), nullptr);
        EXPECT_EQ(tsl_address_alias_find_by_domain(map, "d.example", nullptr), nullptr);
        EXPECT_EQ(tsl_address_alias_erase(map, team, nullptr), 0);
        EXPECT_EQ(tsl_address_alias_erase_by_domain(map, "d.example", nullptr), 0);
        EXPECT_EQ(tsl_address_alias_export_to_file(map, "/dev/null", nullptr), 0);
        EXPECT_EQ(tsl_address_alias_import_from_file(map, "/dev/null", nullptr), 0);
        tsl_address_alias_table_erase("gone");
      }),
      ElementsAre("select * from alias where members like '%bob@d.example%'",
                  "insert into alias ( name, members ) values( 'team@d.example','carl@d.example') "
                  "on duplicate key update members=values( members )",
                  "insert into alias ( name, members ) values( 'team@d.example','bob@d.example') "
                  "on duplicate key update members=values( members )",
                  "select * from alias where members like '%bob@d.example%'",
                  "delete from alias where name ='team@d.example'",
                  "select * from alias where name='team@d.example'",
                  "select * from alias where name like '%@d.example'",
                  "delete from alias where name ='team@d.example'",
                  "delete from alias where name like'%@d.example'", "select * from alias",
                  "drop table alias_gone"));
  tsl_emailaddress_destroy(team);
  tsl_emailaddress_destroy(bob);
  tsl_address_alias_destroy(map);
}

TEST_F(AliasInterface, MembersAreParsedBeforeTheTableIsOpened) {
  // Opening a table of this store reads it.
  AddressMapDb store(AddressMapDb::MySQL, true);
  auto* const map = reinterpret_cast<tsl_address_map>(&store);
  tsl_emailaddress team = tsl_emailaddress_parse("team@d.example");
  tsl_address_alias_entry entry{team, "b@d.example"};
  const auto add = [&] { EXPECT_EQ(tsl_address_alias_add(map, &entry, "none"), -1); };
  EXPECT_THAT(statementsOf(add), ElementsAre("select * from alias_none"));
  entry.members = "a..b@d.example";
  EXPECT_THAT(statementsOf(add), IsEmpty());
  tsl_emailaddress_destroy(team);
}

TEST_F(AliasInterface, ExpandingReadsBothDefaultTablesEachTime) {
  addAlias("team@d.example", "bob@d.example");
  tsl_emailaddress team = tsl_emailaddress_parse("team@d.example");
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(
        statementsOf([&] {
          tsl_emailaddress_container reached = tsl_address_alias_expand_alias(team);
          EXPECT_EQ(tsl_emailaddress_container_size(reached), 1U);
          tsl_emailaddress_container_destroy(reached);
        }),
        ElementsAre("select * from mask where private not like '%*%'",
                    "select * from mask where private like '%*%' or public like '%*%'",
                    "select * from alias", "select * from alias where name='team@d.example'",
                    "select * from alias where name='bob@d.example'"));
  }
  tsl_emailaddress_destroy(team);
}

TEST_F(AliasInterface, TheTableFunctionsSendTheirStatementsWholeAndNothingForNull) {
  EXPECT_THAT(sentBy([] {
                tsl_address_alias_table_create("");
                tsl_address_alias_table_erase("");
              }),
              ElementsAre("create table if not exists alias_(\n"
                          " name varchar( 255 ) unique primary key not null,\n"
                          " members MEDIUMTEXT not null, \n"
                          " all_users tinyint not null default 0)\n"
                          " engine=InnoDB;",
                          "drop table alias_;"));
  Testing::Relay relay;
  tsl_address_alias_table_create(nullptr);
  tsl_address_alias_table_erase(nullptr);
  EXPECT_EQ(relay.relay().connections(), 0);
}

TEST_F(AliasInterface, TablesThatAreNotThereThrowWhenErased) {
  EXPECT_EQ(Testing::caught([] { tsl_address_alias_table_erase("none"); }).code(), 1051);
}

TEST_F(AliasInterface, TableNamesAreWrittenAsTheyStand) {
  sql("create table ts_address_map.alias_a ( a int )");
  sql("create table ts_address_map.other ( a int )");
  tsl_address_alias_table_erase("a, other");
  EXPECT_THAT(sql("show tables from ts_address_map"),
              ElementsAre(ElementsAre("alias"), ElementsAre("mask")));
}

TEST_F(AliasInterface, ARowWithoutMembersIsListedWithEmptyTexts) {
  sql("insert into ts_address_map.alias ( name, members ) values( 'a@d.example','' )");
  tsl_address_map map = tsl_address_alias_create();
  tsl_address_alias_list list = tsl_address_alias_find_by_domain(map, "*", nullptr);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(tsl_emailaddress_text(list[0].name), "");
  EXPECT_STREQ(list[0].members, "");
  EXPECT_EQ(list[1].name, nullptr);
  EXPECT_EQ(Testing::takeLog().size(), 1U);
  tsl_address_alias_list_destroy(list);
  tsl_address_alias_destroy(map);
}

TEST_F(AliasInterface, AFailureInTheMiddleKeepsTheAliasesAlreadyRewritten) {
  addAlias("a@d.example", "bob@d.example,x@d.example");
  // The members text of the second goes into SQL unescaped and breaks the statement.
  sql(R"(insert into ts_address_map.alias ( name, members ) values( 'b@d.example','bob@d.example,o\'x@d.example' ))");
  addAlias("c@d.example", "bob@d.example,x@d.example");
  tsl_address_map map = tsl_address_alias_create();
  tsl_emailaddress bob = tsl_emailaddress_parse("bob@d.example");
  EXPECT_EQ(tsl_address_alias_erase_member_user(map, bob, nullptr), -1);
  EXPECT_THAT(rows(), ElementsAre(ElementsAre("a@d.example", "x@d.example"),
                                  ElementsAre("b@d.example", "bob@d.example,o'x@d.example"),
                                  ElementsAre("c@d.example", "bob@d.example,x@d.example")));
  tsl_emailaddress_destroy(bob);
  tsl_address_alias_destroy(map);
}

// The library's own exception out of the address helpers: no helper of ours throws it, others may.

TEST_F(AliasInterface, AFailureWhileTheListIsFilledReturnsWhatIsThere) {
  addAlias("a@d.example", "x@d.example");
  addAlias("b@d.example", "x@d.example");
  tsl_address_map map = tsl_address_alias_create();
  Testing::CallRecorder recorder;
  recorder.throwAtCall(2);
  tsl_address_alias_list list = tsl_address_alias_find_by_domain(map, "*", nullptr);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(tsl_emailaddress_text(list[0].name), "a@d.example");
  EXPECT_STREQ(list[0].members, "x@d.example");
  EXPECT_EQ(list[1].name, nullptr);
  EXPECT_EQ(list[2].name, nullptr);
  tsl_address_alias_list_destroy(list);
  tsl_address_alias_destroy(map);
}

TEST_F(AliasInterface, AFailureWhileTheEntryIsFilledReturnsItWithoutMembers) {
  addAlias("a@d.example", "x@d.example");
  tsl_address_map map = tsl_address_alias_create();
  tsl_emailaddress alias = tsl_emailaddress_parse("a@d.example");
  Testing::CallRecorder recorder;
  recorder.throwAtCall(1);
  tsl_address_alias_entry* entry = tsl_address_alias_find(map, alias, nullptr);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->name, nullptr);
  EXPECT_EQ(entry->members, nullptr);
  tsl_address_alias_entry_destroy(entry);
  tsl_emailaddress_destroy(alias);
  tsl_address_alias_destroy(map);
}

TEST_F(AliasInterface, AFailureWhileTheContainerIsFilledReturnsWhatIsThere) {
  addAlias("a@d.example", "x@d.example,y@d.example,z@d.example");
  tsl_emailaddress alias = tsl_emailaddress_parse("a@d.example");
  Testing::CallRecorder recorder;
  recorder.throwAtCall(3);
  tsl_emailaddress_container reached = tsl_address_alias_expand_alias(alias);
  ASSERT_NE(reached, nullptr);
  EXPECT_EQ(tsl_emailaddress_container_size(reached), 2U);
  EXPECT_STREQ(tsl_emailaddress_text(tsl_emailaddress_container_get(reached, 1)), "y@d.example");
  tsl_emailaddress_container_destroy(reached);
  tsl_emailaddress_destroy(alias);
}

}  // namespace
}  // namespace Tessel
