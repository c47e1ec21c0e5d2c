// Tests of the numbers for addresses in any spelling.
#include "tables/SpellingIndex.h"

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

TEST(SpellingIndex, AllSpellingsOfAnAddressHaveOneNumber) {
  SpellingIndex index;
  EXPECT_EQ(index.add("Ann@Example.COM").id, 0U);
  EXPECT_EQ(index.add("J\u00dcRGEN@b\u00fcro.example").id, 1U);
  EXPECT_EQ(index.size(), 2U);
  EXPECT_FALSE(index.add("ann@example.com").isNew);
  EXPECT_FALSE(index.add("ju\u0308rgen@xn--bro-hoa.example").isNew);
  EXPECT_EQ(index.find("\"ANN\"@example.com"), 0U);
  EXPECT_EQ(index.find("j\u00fcrgen@BU\u0308RO.example"), 1U);
  EXPECT_EQ(index.find("jurgen@xn--bro-hoa.example"), SpellingIndex::s_none);
}

TEST(SpellingIndex, HasTheTextsAsTheyWereAddedFirst) {
  SpellingIndex index;
  index.add("Ann@Example.COM");
  index.add("J\u00dcRGEN@b\u00fcro.example");
  index.add("ann@example.com");
  EXPECT_EQ(index.text(0), "Ann@Example.COM");
  EXPECT_EQ(index.text(1), "J\u00dcRGEN@b\u00fcro.example");
}

TEST(SpellingIndex, WhatIsNoAddressIsComparedAsItIs) {
  SpellingIndex index;
  index.add("allusers_Example.com");
  index.add("\"x\"@d.example");
  EXPECT_EQ(index.find("ALLUSERS_example.com"), 0U);
  EXPECT_EQ(index.find("allusers_example.org"), SpellingIndex::s_none);
  // The quotes belong to the name.
  EXPECT_TRUE(index.add("\"\\\"x\\\"\"@d.example").isNew);
}

}  // namespace
}  // namespace Tessel::Tool
