// Tests of the bytes of texts.
#include "base/bytes.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel {
namespace {

TEST(Bytes, ContinuationsAreTheBytesBehindTheFirst) {
  EXPECT_FALSE(isUtf8Continuation('a'));
  EXPECT_FALSE(isUtf8Continuation('\x7f'));
  EXPECT_TRUE(isUtf8Continuation('\x80'));
  EXPECT_TRUE(isUtf8Continuation('\xbf'));
  EXPECT_FALSE(isUtf8Continuation('\xc0'));
  EXPECT_FALSE(isUtf8Continuation('\xff'));
}

TEST(Bytes, ATextIsCutBeforeACharacterThatDoesNotFit) {
  EXPECT_EQ(cutUtf8("abc", 3), "abc");
  EXPECT_EQ(cutUtf8("abc", 2), "ab");
  EXPECT_EQ(cutUtf8("a\xc3\xa4z", 3), "a\xc3\xa4");
  EXPECT_EQ(cutUtf8("a\xc3\xa4z", 2), "a");
  EXPECT_EQ(cutUtf8("\xe2\x82\xac", 2), "");
  EXPECT_EQ(cutUtf8("", 0), "");
}

TEST(Bytes, HexadecimalDigitsAreTwoSmallLetters) {
  std::string text;
  appendHex(text, '\0');
  appendHex(text, '\xab');
  EXPECT_EQ(text, "00ab");
  appendEscaped(text, '\x1f');
  EXPECT_EQ(text, "00ab\\x1f");
}

TEST(Bytes, RandomOnesAreOthersEachTime) {
  const std::string text = randomHex(16);
  EXPECT_EQ(text.size(), 32U);
  EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(text, randomHex(16));
  EXPECT_EQ(randomHex(0), "");
}

}  // namespace
}  // namespace Tessel
