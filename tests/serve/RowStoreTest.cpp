// Rows in one block of memory.
#include "serve/image/RowStore.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

TEST(RowStore, GivesRowsBackByTheNumbersInWhichTheyCame) {
  RowStore rows;
  EXPECT_EQ(rows.size(), 0U);
  EXPECT_EQ(rows.add("a", "first"), 0U);
  EXPECT_EQ(rows.add("", ""), 1U);
  EXPECT_EQ(rows.add("", "second"), 2U);
  EXPECT_EQ(rows.add(std::string("b\0c", 3), ""), 3U);
  EXPECT_EQ(rows.size(), 4U);
  EXPECT_EQ(rows.first(0), "a");
  EXPECT_EQ(rows.second(0), "first");
  EXPECT_EQ(rows.first(1), "");
  EXPECT_EQ(rows.second(1), "");
  EXPECT_EQ(rows.first(2), "");
  EXPECT_EQ(rows.second(2), "second");
  EXPECT_EQ(rows.first(3), std::string("b\0c", 3));
  EXPECT_EQ(rows.second(3), "");
}

TEST(RowStore, KeepsItsRowsWhenItGivesRoomBack) {
  RowStore rows;
  for (int i = 0; i < 1000; ++i) rows.add(std::to_string(i), std::to_string(2 * i));
  rows.shrink();
  EXPECT_EQ(rows.size(), 1000U);
  EXPECT_EQ(rows.first(999), "999");
  EXPECT_EQ(rows.second(999), "1998");
}

TEST(RowStore, RefusesANumberThatIsNotThere) {
  RowStore rows;
  rows.add("a", "b");
  EXPECT_THROW(static_cast<void>(rows.first(1)), std::out_of_range);
  EXPECT_THROW(static_cast<void>(rows.second(1)), std::out_of_range);
}

TEST(RowStore, FewRowsTakeLittleMemory) {
  RowStore rows;
  EXPECT_EQ(rows.bytes(), 0U);
  rows.add("a@d", "b@d");
  EXPECT_LT(rows.bytes(), 10000U);
  for (int i = 0; i < 10000; ++i) rows.add(std::string(500, 'a'), std::string(500, 'b'));
  EXPECT_GE(rows.bytes(), 10000000U);
  EXPECT_LT(rows.bytes(), 12500000U);
}

}  // namespace
}  // namespace Tessel::Serve
