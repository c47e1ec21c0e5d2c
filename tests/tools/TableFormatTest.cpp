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

// The change of the row KEY:VALUE to the row of the line `now`.
std::string s_change(const char* key, const std::string& value, const std::string& now) {
  RowReader reader(TableKind::Alias);
  TableEntry entry;
  const std::size_t colon = now.find(':');
  EXPECT_FALSE(readEntry(reader, now.substr(0, colon), now.substr(colon + 1), entry));
  return changeOf(key, value, entry);
}

TEST(TableFormat, AChangeShowsTheOldAndTheNewRow) {
  EXPECT_EQ(s_change("a@x", "b@x", "a@x:b@x"), "");
  EXPECT_EQ(s_change("a@x", "b@x", "a@x:c@x"), "a@x:b@x -> c@x");
  EXPECT_EQ(s_change("A@x", "b@x", "a@x:b@x"), "A@x:b@x -> a@x:b@x");
  EXPECT_EQ(s_change("a@x", "no address", "a@x:c@x"), "a@x:no address -> c@x");
}

TEST(TableFormat, OfManyMembersThoseThatStayAreCounted) {
  std::string many = "m0@x";
  for (int i = 1; i < 11; ++i) many += ",m" + std::to_string(i) + "@x";
  EXPECT_EQ(s_change("a@x", many + ",old@x", "a@x:" + many + ",new@x,new2@x"),
            "a@x:11 others,old@x -> 11 others,new@x,new2@x");
  EXPECT_EQ(s_change("a@x", many, "a@x:" + many + ",new@x"), "a@x:11 others -> 11 others,new@x");
  EXPECT_EQ(s_change("A@x", many + ",old@x", "a@x:" + many),
            "A@x:11 others,old@x -> a@x:11 others");
  // What differs in its spelling only is shown whole.
  EXPECT_EQ(s_change("a@x", "M0@x" + many.substr(4), "a@x:" + many).substr(0, 9), "a@x:M0@x,");
}

}  // namespace
}  // namespace Tessel::Tool
