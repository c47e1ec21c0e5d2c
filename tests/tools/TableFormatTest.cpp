// Tests of the two kinds of table as the table files see them.
#include "tables/TableFormat.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

TEST(TableFormat, TheKeyEndsAtTheFirstColonOutsideOfQuotesAndLiterals) {
  EXPECT_EQ(endOfKey("a@d:b@d:c"), 3U);
  EXPECT_EQ(endOfKey(":b@d"), 0U);
  EXPECT_EQ(endOfKey(R"("a:b\":"@d:c)"), 10U);
  EXPECT_EQ(endOfKey("a@[IPv6:::1]:c"), 12U);
  EXPECT_EQ(endOfKey(R"("["@d:c)"), 5U);
  for (const char* const line : {"", "a@d", R"("a:b)", "a@[IPv6:1", R"("\)"}) {
    EXPECT_EQ(endOfKey(line), std::string::npos) << line;
  }
}

TEST(TableFormat, AnEntryHasTheAddressesOfItsRowInOrder) {
  RowReader reader(TableKind::Alias);
  TableEntry entry;
  EXPECT_FALSE(readEntry(reader, "T@d", "b@x,A@x,a@x,allusers_d", entry));
  EXPECT_EQ(entry.value(), "A@x,allusers_d,b@x");
  EXPECT_EQ(entry.line(), "T@d:A@x,allusers_d,b@x");
  EXPECT_FALSE(readEntry(reader, "T@d", "b@x,", entry));
  EXPECT_EQ(entry.line(), "T@d:b@x");
}

TEST(TableFormat, ABadRowHasAFaultAndItsWords) {
  RowReader reader(TableKind::Mask);
  TableEntry entry;
  const auto fault = readEntry(reader, "a@in", "", entry);
  ASSERT_TRUE(fault);
  EXPECT_EQ(fault->kind, RowFault::EmptyValue);
  EXPECT_EQ(fault->why, "the public address is empty");
}

}  // namespace
}  // namespace Tessel::Tool
