// Keys and record sizes of the storage format.
#include "cmf/StorageFormat.h"

#include <string>

#include <gtest/gtest.h>

#include "cmf/ConfigurationTest.h"

namespace Tessel::CMF {
namespace {

TEST(StorageFormat, AKeyIsTwoBigEndianNumbersAndThePaddedName) {
  const std::string got = text(Key(0x01020304, 346, "bob"));
  EXPECT_EQ(got, std::string("\x01\x02\x03\x04\x00\x00\x01\x5a"
                             "bob\0\0\0\0\0",
                             16));
  EXPECT_EQ(text(Key(0, 0)), std::string(8, '\0'));
}

TEST(StorageFormat, EveryKeyIsAMultipleOf8BytesAndFitsIntoLmdbsLimit) {
  for (std::size_t length = 0; length <= s_maxDomain; ++length) {
    const Key key(1, 2, std::string(length, 'x'));
    EXPECT_EQ(key.size() % 8, 0U) << length;
    EXPECT_GE(key.size(), 8 + length) << length;
    EXPECT_LE(key.size(), 511U) << length;
  }
}

TEST(StorageFormat, KeysOrderByGroupTableAndNameBytes) {
  EXPECT_LT(text(Key(1, 346, "zzz")), text(Key(2, 1)));
  EXPECT_LT(text(Key(255, 346)), text(Key(256, 346)));
  EXPECT_LT(text(Key(1, 346)), text(Key(1, 346, "a")));
  EXPECT_LT(text(Key(1, 346, "abcdefgh")), text(Key(1, 346, "abcdefghi")));
  EXPECT_LT(text(Key(1, 346, "ab")), text(Key(1, 346, "abc")));
  EXPECT_LT(text(Key(1, 346, "z")), text(Key(1, 346, "\xc3\xa9")));
}

TEST(StorageFormat, FoldingTouchesAsciiLettersOnly) {
  EXPECT_EQ(foldName("Bob.MILLER-[@`{Z"), "bob.miller-[@`{z");
  EXPECT_EQ(foldName("J\xc3\x89R\xc3\xb4ME"), "j\xc3\x89r\xc3\xb4me");
}

TEST(StorageFormat, TableAndGroupOfAKeyAreRecognised) {
  const Key table(7, 346);
  const std::string row = text(Key(7, 346, "bob"));
  const std::string other = text(Key(7, 347, "bob"));
  const std::string domain = text(Key(8, 346, "bob"));
  EXPECT_TRUE(table.sameTable(row.data(), row.size()));
  EXPECT_FALSE(table.sameTable(other.data(), other.size()));
  EXPECT_TRUE(table.sameGroup(other.data(), other.size()));
  EXPECT_FALSE(table.sameGroup(domain.data(), domain.size()));
  EXPECT_FALSE(table.sameTable(row.data(), 4));
}

}  // namespace
}  // namespace Tessel::CMF
