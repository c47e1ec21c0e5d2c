// Tests of the reading of table files: what a line is and where reading ends.
#include "map/ColonLines.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Lines = std::vector<std::pair<std::string, std::string>>;

Lines s_read(const std::string& text) {
  std::istringstream stream(text);
  Lines lines;
  forEachColonLine(stream, [&lines](std::string_view before, std::string_view after) {
    lines.emplace_back(before, after);
  });
  return lines;
}

TEST(ColonLines, ALineThatEndedWithALineFeedCarriesATrailingNul) {
  EXPECT_THAT(s_read("a:b\n"), ElementsAre(Pair("a", "b\0"s)));
}

TEST(ColonLines, ALastLineWithoutLineFeedCarriesNone) {
  EXPECT_THAT(s_read("a:b\nc:d"), ElementsAre(Pair("a", "b\0"s), Pair("c", "d")));
}

TEST(ColonLines, OnlyTheFirstColonSeparates) {
  EXPECT_THAT(s_read("a:b:c"), ElementsAre(Pair("a", "b:c")));
}

TEST(ColonLines, EmptyLinesAndLinesWithoutColonAreSkipped) {
  EXPECT_THAT(s_read("\nnothing\na:b"), ElementsAre(Pair("a", "b")));
  EXPECT_THAT(s_read(""), IsEmpty());
}

TEST(ColonLines, ACarriageReturnStays) {
  EXPECT_THAT(s_read("a:b\r\n"), ElementsAre(Pair("a", "b\r\0"s)));
}

TEST(ColonLines, ALineOf16383CharactersIsWholeAndReadingGoesOn) {
  const std::string rest(16381, 'x');
  EXPECT_THAT(s_read("a:" + rest + "\nc:d"), ElementsAre(Pair("a", rest + "\0"s), Pair("c", "d")));
}

TEST(ColonLines, ALongerLineIsCutAt16383AndEndsTheReading) {
  const std::string rest(20000, 'x');
  EXPECT_THAT(s_read("a:" + rest + "\nc:d\n"), ElementsAre(Pair("a", std::string(16381, 'x'))));
}

TEST(ColonLines, OneCharacterTooManyIsTooLong) {
  const std::string rest(16382, 'x');
  EXPECT_THAT(s_read("a:" + rest + "\nc:d\n"), ElementsAre(Pair("a", std::string(16381, 'x'))));
}

TEST(ColonLines, ALastLineOf16383CharactersWithoutLineFeedIsWhole) {
  const std::string rest(16381, 'x');
  EXPECT_THAT(s_read("c:d\na:" + rest), ElementsAre(Pair("c", "d\0"s), Pair("a", rest)));
}

TEST(ColonLines, NulsStayWhereTheyAre) {
  EXPECT_THAT(s_read("a\0b:c\0d\n\0\0\n"s), ElementsAre(Pair("a\0b"s, "c\0d\0"s)));
}

TEST(ColonLines, WhatTheTakerThrowsEndsTheReading) {
  std::istringstream stream("a:b\nc:d\n");
  int taken = 0;
  EXPECT_THROW(forEachColonLine(stream,
                                [&taken](std::string_view, std::string_view) {
                                  ++taken;
                                  throw std::runtime_error("enough");
                                }),
               std::runtime_error);
  EXPECT_EQ(taken, 1);
}

}  // namespace
}  // namespace Tessel
