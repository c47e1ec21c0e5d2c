// Tests of stringCompareNoCase.
#include "base/stringCompareNoCase.h"

#include <gtest/gtest.h>

namespace Tessel {
namespace {

TEST(StringCompareNoCase, IgnoresTheCaseOfAsciiLetters) {
  EXPECT_TRUE(stringCompareNoCase("AllUsers_D.Example", "allusers_d.example", 0));
  EXPECT_TRUE(stringCompareNoCase("", "", 0));
  EXPECT_FALSE(stringCompareNoCase("a", "b", 0));
}

TEST(StringCompareNoCase, OtherBytesCompareAsTheyAre) {
  EXPECT_FALSE(stringCompareNoCase("@", "`", 0));
  EXPECT_FALSE(stringCompareNoCase("[", "{", 0));
  EXPECT_FALSE(stringCompareNoCase("\xc3\x89", "\xc3\xa9", 0));
}

TEST(StringCompareNoCase, LengthZeroMeansTheWholeTexts) {
  EXPECT_FALSE(stringCompareNoCase("abc", "abcd", 0));
  EXPECT_FALSE(stringCompareNoCase("abcd", "abc", 0));
}

TEST(StringCompareNoCase, ALengthLimitsTheComparison) {
  EXPECT_TRUE(stringCompareNoCase("ABCx", "abcy", 3));
  EXPECT_FALSE(stringCompareNoCase("ABCx", "abcy", 4));
  EXPECT_FALSE(stringCompareNoCase("ab", "abc", 3));
}

}  // namespace
}  // namespace Tessel
