// Rows that an image leaves out: all are counted and kept, the first of them with the reason.
#include "serve/image/BrokenRows.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

TEST(BrokenRows, NothingIsLeftOutAtFirst) {
  const BrokenRows rows;
  EXPECT_EQ(rows.count(), 0U);
  EXPECT_TRUE(rows.first().empty());
  EXPECT_FALSE(rows.hasKeys());
  EXPECT_FALSE(rows.hasKey(""));
}

TEST(BrokenRows, ARowIsKeptAsItStandsInTheTable) {
  BrokenRows rows;
  rows.add("A@d", "no address", "bad members", "a@d");
  rows.add("nobody", "x@d", "bad name", "");
  EXPECT_EQ(rows.count(), 2U);
  EXPECT_EQ(rows.rows().first(0), "A@d");
  EXPECT_EQ(rows.rows().second(0), "no address");
  EXPECT_EQ(rows.first().at(1).name, "nobody");
  EXPECT_EQ(rows.first().at(1).why, "bad name");
}

TEST(BrokenRows, OnlyRowsWithAKeyMakeAnAddressUnknown) {
  BrokenRows rows;
  rows.add("nobody", "x@d", "bad name", "");
  EXPECT_FALSE(rows.hasKeys());
  EXPECT_FALSE(rows.hasKey(""));
  rows.add("A@d", "no address", "bad members", "a@d");
  EXPECT_TRUE(rows.hasKeys());
  EXPECT_TRUE(rows.hasKey("a@d"));
  EXPECT_FALSE(rows.hasKey("A@d"));
}

TEST(BrokenRows, AHundredAreNamedAndAllAreCounted) {
  BrokenRows rows;
  for (int i = 0; i < 250; ++i) {
    const std::string name = std::to_string(i) + "@d";
    rows.add(name, "", "the members are empty", name);
  }
  EXPECT_EQ(rows.count(), 250U);
  EXPECT_EQ(rows.first().size(), 100U);
  EXPECT_TRUE(rows.hasKey("249@d"));
}

}  // namespace
}  // namespace Tessel::Serve
