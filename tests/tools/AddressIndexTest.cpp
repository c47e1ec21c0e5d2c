// Tests of the numbers for addresses.
#include "tables/AddressIndex.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

TEST(AddressIndex, NumbersTextsInTheirOrder) {
  AddressIndex index;
  EXPECT_EQ(index.find("a@d"), AddressIndex::s_none);
  EXPECT_EQ(index.add("a@d").id, 0U);
  EXPECT_EQ(index.add("").id, 1U);
  EXPECT_TRUE(index.add("b@d").isNew);
  EXPECT_EQ(index.size(), 3U);
  EXPECT_EQ(index.find("b@d"), 2U);
  EXPECT_EQ(index.text(0), "a@d");
  EXPECT_EQ(index.text(1), "");
  EXPECT_EQ(index.text(2), "b@d");
}

TEST(AddressIndex, DisregardsTheCaseOfAsciiLettersOnly) {
  AddressIndex index;
  index.add("Ann.o'hara@Example.COM");
  const AddressIndex::Added again = index.add("ann.O'HARA@example.com");
  EXPECT_FALSE(again.isNew);
  EXPECT_EQ(again.id, 0U);
  EXPECT_EQ(index.text(0), "Ann.o'hara@Example.COM");
  // These differ in the same bit as a letter and its capital.
  index.add("[@d");
  EXPECT_TRUE(index.add("{@d").isNew);
  EXPECT_EQ(index.find("\xc3\xbc@d"), AddressIndex::s_none);
  index.add("\xc3\xbc@d");
  EXPECT_EQ(index.find("\xc3\x9c@d"), AddressIndex::s_none);
}

TEST(AddressIndex, FindsWhatItHasAndNothingElseWhileItGrows) {
  constexpr AddressIndex::Id many = 5000;
  AddressIndex index;
  const auto name = [](AddressIndex::Id id) { return "user" + std::to_string(id) + "@d.example"; };
  for (AddressIndex::Id id = 0; id < many; ++id) {
    ASSERT_EQ(index.find(name(id)), AddressIndex::s_none) << id;
    ASSERT_EQ(index.add(name(id)).id, id);
  }
  for (AddressIndex::Id id = 0; id < many; ++id) ASSERT_EQ(index.find(name(id)), id);
  EXPECT_EQ(index.find(name(many)), AddressIndex::s_none);
}

}  // namespace
}  // namespace Tessel::Tool
