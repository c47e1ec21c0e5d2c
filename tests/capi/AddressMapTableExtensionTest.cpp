// The names of tables: which count, in which order, and who keeps them. This source is compiled
// without access control, because the order of private fields counts.
#include "capi/AddressMapTableExtension.h"

#include <set>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Caught.h"
#include "support/Layout.h"
#include "support/MapDatabase.h"
#include "tests/capi/cases.h"

namespace {

using Tessel::Testing::addressOf;
using Tessel::Testing::standInOrder;
using testing::ElementsAre;
using testing::IsEmpty;

class TableExtensions : public Tessel::Testing::MapDatabase {};

#define TSL_EXTENSION_CASE(name, function)                       \
  TEST_F(TableExtensions, name) {                                \
    EXPECT_EQ(function(), 0) << "the line in extension_cases.c"; \
  }

TSL_EXTENSION_CASE(NoTablesGiveAnObjectWithoutArray, tsl_extension_case_no_tables)
TSL_EXTENSION_CASE(NamesAreSortedTheEmptyOneFirst, tsl_extension_case_order_and_empty_extension)
TSL_EXTENSION_CASE(TheListIsASnapshot, tsl_extension_case_snapshot)
TSL_EXTENSION_CASE(NullIsAccepted, tsl_extension_case_null)
TSL_EXTENSION_CASE(TheEmptyExtensionOpensTheDefaultTable,
                   tsl_extension_case_empty_extension_opens_the_default_table)

TEST_F(TableExtensions, ThePrefixNeedNoSeparator) {
  sql("create table ts_address_map.aliases ( a int )");
  sql("create table ts_address_map.aliasxtra ( a int )");
  const AddressMapTableExtension extensions("alias");
  char** const names = extensions.extensionsAsCharArray();
  ASSERT_NE(names, nullptr);
  EXPECT_STREQ(names[0], "s");
  EXPECT_STREQ(names[1], "tra");
  EXPECT_EQ(names[2], nullptr);
}

TEST_F(TableExtensions, TheArrayStandsBehindTheSetAndPointsIntoIt) {
  sql("create table ts_address_map.alias_a ( a int )");
  const AddressMapTableExtension extensions("alias");
  static_assert(sizeof(extensions) == sizeof(std::set<std::string>) + sizeof(char**));
  static_assert(!std::is_polymorphic_v<AddressMapTableExtension>);
  EXPECT_TRUE(
      standInOrder(addressOf(extensions.m_extensions), addressOf(extensions.m_extensionArray)));
  EXPECT_EQ(extensions.extensionsAsCharArray()[0], extensions.m_extensions.begin()->c_str());
}

TEST_F(TableExtensions, ADatabaseThatCannotBeReadGivesNull) {
  sql("drop database ts_address_map");
  EXPECT_EQ(tsl_address_alias_extensions_create(), nullptr);
  EXPECT_EQ(tsl_address_mask_extensions_create(), nullptr);
  EXPECT_EQ(Tessel::Testing::caught([] { const AddressMapTableExtension names("alias"); }).code(),
            1049);
}

std::set<std::string> s_extensionsOf(const std::set<std::string>& tables) {
  const std::string prefix = "alias";
  std::set<std::string> extensions;
  const AdapterTableExtension adapter(prefix, extensions);
  for (const std::string& table : tables) adapter(table);
  return extensions;
}

TEST(AdapterTableExtension, TheCharacterBehindThePrefixIsDroppedWhateverItIs) {
  EXPECT_THAT(s_extensionsOf({"alias_sales", "aliasxtra", "alias-1", "aliases"}),
              ElementsAre("1", "s", "sales", "tra"));
}

TEST(AdapterTableExtension, ThePrefixItselfAndOthersAreSkipped) {
  EXPECT_THAT(s_extensionsOf({"", "alias", "mask", "mask_a", "Alias_a", "my_alias", "alia"}),
              IsEmpty());
}

TEST(AdapterTableExtension, ARepeatedExtensionIsKeptOnce) {
  EXPECT_THAT(s_extensionsOf({"alias_a", "aliasxa", "alias_"}), ElementsAre("", "a"));
}

}  // namespace
