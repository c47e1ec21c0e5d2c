// The C functions on address-mask tables: the cases in C, the statements that they send, and their
// records.
#include "tsl_address_map.h"

#include <cstddef>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Caught.h"
#include "support/MapDatabase.h"
#include "tests/capi/CallRecorder.h"
#include "tests/capi/cases.h"

namespace Tessel {
namespace {

using testing::ElementsAre;

class MaskInterface : public Testing::MapDatabase {
 protected:
  static void addMask(const std::string& privateText, const std::string& publicText) {
    sql("insert into ts_address_map.mask values( '" + privateText + "','" + publicText + "' )");
  }
};

#define TSL_MASK_CASE(name, function)                       \
  TEST_F(MaskInterface, name) {                             \
    EXPECT_EQ(function(), 0) << "the line in mask_cases.c"; \
  }

TSL_MASK_CASE(AddFindErase, tsl_mask_case_add_find_erase)
TSL_MASK_CASE(AddReplacesThePublicAddress, tsl_mask_case_add_replaces_public_address)
TSL_MASK_CASE(EraseNeedsBothAddresses, tsl_mask_case_erase_needs_both)
TSL_MASK_CASE(EraseByDomain, tsl_mask_case_erase_by_domain)
TSL_MASK_CASE(SelectADomainOrAll, tsl_mask_case_select)
TSL_MASK_CASE(SelectingNothingGivesNull, tsl_mask_case_select_nothing_is_null)
TSL_MASK_CASE(WildcardRowsAreNotApplied, tsl_mask_case_wildcards_are_not_applied)
TSL_MASK_CASE(NullArgumentsAreRefused, tsl_mask_case_null_arguments)
TSL_MASK_CASE(EndingNullDoesNothing, tsl_mask_case_null_ends_nothing)
TSL_MASK_CASE(AListWithOnlyItsEnd, tsl_mask_case_list_with_only_its_end)
TSL_MASK_CASE(NamedTables, tsl_mask_case_named_tables)
TSL_MASK_CASE(TheTableFunctionsTakeTheEmptyNameForAnotherTable,
              tsl_mask_case_empty_name_of_the_table_functions)
TSL_MASK_CASE(OneHandleServesBothKinds, tsl_mask_case_one_handle_serves_both)

TEST_F(MaskInterface, Files) {
  const std::string path = Testing::TestServer::shared().directory() + "/masks";
  EXPECT_EQ(tsl_mask_case_files(path.c_str()), 0) << "the line in mask_cases.c";
}

TEST_F(MaskInterface, RecordsAreLaidOutAsTwoPointers) {
  static_assert(std::is_standard_layout_v<tsl_address_mask_entry>);
  EXPECT_EQ(offsetof(tsl_address_mask_entry, private_address), 0U);
  EXPECT_EQ(offsetof(tsl_address_mask_entry, public_address), sizeof(void*));
  EXPECT_EQ(sizeof(tsl_address_mask_entry), 2 * sizeof(void*));
}

TEST_F(MaskInterface, EachFunctionSendsItsStatements) {
  sql("create table ts_address_map.mask_gone ( a int )");
  tsl_address_map map = tsl_address_mask_create();
  tsl_emailaddress inner = tsl_emailaddress_parse("p@d.example");
  tsl_emailaddress outer = tsl_emailaddress_parse("q@e.example");
  const tsl_address_mask_entry entry{inner, outer};
  EXPECT_THAT(
      statementsOf([&] {
        EXPECT_EQ(tsl_address_mask_add(map, &entry, nullptr), 0);
        tsl_emailaddress_destroy(tsl_address_mask_find_private(map, outer, nullptr));
        tsl_emailaddress_destroy(tsl_address_mask_find_public(map, inner, nullptr));
        EXPECT_EQ(tsl_address_mask_erase(map, &entry, nullptr), 0);
        EXPECT_EQ(tsl_address_mask_erase_by_domain(map, "d.example", nullptr), 0);
        EXPECT_EQ(tsl_address_mask_select(map, "d.example", nullptr), nullptr);
        EXPECT_EQ(tsl_address_mask_select(map, "*", nullptr), nullptr);
        EXPECT_EQ(tsl_address_mask_export_to_file(map, "/dev/null", nullptr), 0);
        EXPECT_EQ(tsl_address_mask_import_from_file(map, "/dev/null", nullptr), 0);
        tsl_address_mask_table_erase("gone");
      }),
      ElementsAre("insert into mask (private, public ) values( 'p@d.example','q@e.example' ) on "
                  "duplicate key update public=values( public )",
                  "select * from mask where public ='q@e.example'",
                  "select * from mask where private ='p@d.example'",
                  "delete from mask where private='p@d.example' and public='q@e.example'",
                  "delete from mask where private like '%@d.example'",
                  "select * from mask where private like '%@d.example'", "select * from mask",
                  "select * from mask where private not like '%*%'", "drop table mask_gone"));
  tsl_emailaddress_destroy(inner);
  tsl_emailaddress_destroy(outer);
  tsl_address_mask_destroy(map);
}

TEST_F(MaskInterface, TheTableFunctionsSendTheirStatementsWholeAndNothingForNull) {
  EXPECT_THAT(sentBy([] {
                tsl_address_mask_table_create("");
                tsl_address_mask_table_erase("");
              }),
              ElementsAre("create table mask_(\n"
                          " private varchar( 255 ) primary key,\n"
                          " public varchar( 255 ) not null )\n"
                          " engine=InnoDB;",
                          "create unique index private on mask_( private );",
                          "create unique index public on mask_( public );", "drop table mask_;"));
  Testing::Relay relay;
  tsl_address_mask_table_create(nullptr);
  tsl_address_mask_table_erase(nullptr);
  EXPECT_EQ(relay.relay().connections(), 0);
}

TEST_F(MaskInterface, CreatingATableThatExistsThrows) {
  tsl_address_mask_table_create("sales");
  const Exception got = Testing::caught([] { tsl_address_mask_table_create("sales"); });
  EXPECT_EQ(got.context(), "Address Mask Creation");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1050);
}

TEST_F(MaskInterface, TablesThatAreNotThereThrowWhenErased) {
  EXPECT_EQ(Testing::caught([] { tsl_address_mask_table_erase("none"); }).code(), 1051);
}

// The addresses made before the failure are nobody's then; the test ends them, which the address
// sanitizer would report had the function done so too.
TEST_F(MaskInterface, AFailureWhileTheListIsFilledReturnsNull) {
  addMask("p1@d.example", "q1@e.example");
  addMask("p2@d.example", "q2@e.example");
  tsl_address_map map = tsl_address_mask_create();
  Testing::CallRecorder recorder;
  recorder.throwAtCall(4);
  EXPECT_EQ(tsl_address_mask_select(map, "*", nullptr), nullptr);
  EXPECT_EQ(recorder.made().size(), 3U);
  for (tsl_emailaddress address : recorder.made()) tsl_emailaddress_destroy(address);
  tsl_address_mask_destroy(map);
}

}  // namespace
}  // namespace Tessel
