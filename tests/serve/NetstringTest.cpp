// Netstrings: whole and cut frames, what is malformed and what is too long, as soon as it shows.
#include "serve/socket/Netstring.h"

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

using State = NetstringFrame::State;

TEST(Netstring, AWholeFrameGivesItsPayloadAndItsLength) {
  const std::string_view buffer = "9:map a@b.c,5:later";
  const NetstringFrame frame = parseNetstring(buffer, 100);
  ASSERT_EQ(frame.state, State::Frame);
  EXPECT_EQ(frame.payload, "map a@b.c");
  EXPECT_EQ(frame.payload.data(), buffer.data() + 2);
  EXPECT_EQ(frame.consumed, 12U);
}

TEST(Netstring, APayloadMayBeEmptyAndHoldAnyBytes) {
  const NetstringFrame empty = parseNetstring("0:,", 0);
  EXPECT_EQ(empty.state, State::Frame);
  EXPECT_EQ(empty.payload, "");
  EXPECT_EQ(empty.consumed, 3U);
  const std::string_view any("5:\0,:\xff,,", 8);
  EXPECT_EQ(parseNetstring(any, 5).payload, any.substr(2, 5));
}

TEST(Netstring, EveryBeginningOfAFrameWaitsForMoreAndTakesNothing) {
  const std::string_view whole = "12:map ann@a.de,";
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const NetstringFrame frame = parseNetstring(whole.substr(0, size), 12);
    EXPECT_EQ(frame.state, State::NeedMore) << size;
    EXPECT_EQ(frame.consumed, 0U);
    EXPECT_EQ(frame.payload, "");
  }
  EXPECT_EQ(parseNetstring(whole, 12).state, State::Frame);
}

// Each text is wrong, its beginnings are not, and it stays wrong with more behind it.
void s_expectAtLastByte(std::string_view text, std::size_t maxSize, State want) {
  SCOPED_TRACE(text);
  const NetstringFrame got = parseNetstring(text, maxSize);
  EXPECT_EQ(got.state, want);
  EXPECT_EQ(got.consumed, 0U);
  EXPECT_EQ(got.payload, "");
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_EQ(parseNetstring(text.substr(0, size), maxSize).state, State::NeedMore) << size;
  }
  for (const char* more : {"0", ":", ",", "x", ":0123456789,"}) {
    EXPECT_EQ(parseNetstring(std::string(text) + more, maxSize).state, want) << more;
  }
}

TEST(Netstring, WhatIsMalformedIsToldAtTheByteThatMakesItSo) {
  for (const char* text : {":", "x", "+", "-", " ", ",", "\n", "1x", "1 ", "1,", "00", "01",
                           "3:abc;", "0:x", "3:abcd"}) {
    s_expectAtLastByte(text, 100, State::Malformed);
  }
  s_expectAtLastByte(std::string_view("\0", 1), 100, State::Malformed);
}

TEST(Netstring, WhatIsTooLongIsToldAtTheDigitThatMakesItSo) {
  s_expectAtLastByte("101", 100, State::TooLong);
  s_expectAtLastByte("1000", 999, State::TooLong);
  s_expectAtLastByte("6", 5, State::TooLong);
  s_expectAtLastByte("10", 9, State::TooLong);
  s_expectAtLastByte("1", 0, State::TooLong);
}

TEST(Netstring, TheLongestPayloadIsTaken) {
  const std::string payload(100, 'x');
  EXPECT_EQ(parseNetstring("100:" + payload + ",", 100).payload, payload);
  EXPECT_EQ(parseNetstring("100:" + payload + ",", 99).state, State::TooLong);
}

TEST(Netstring, NoLengthOverflows) {
  constexpr std::size_t s_most = std::numeric_limits<std::size_t>::max();
  const std::string most = std::to_string(s_most);
  EXPECT_EQ(parseNetstring(most + ":abc,", s_most).state, State::NeedMore);
  std::string more = most;
  ++more.back();
  EXPECT_EQ(parseNetstring(more, s_most).state, State::TooLong);
  EXPECT_EQ(parseNetstring(most + "0", s_most).state, State::TooLong);
}

TEST(Netstring, WrittenFramesStandBehindEachOtherAndAreReadBack) {
  std::string stream = "before";
  appendNetstring(stream, "");
  appendNetstring(stream, "OK ann@example.com");
  EXPECT_EQ(stream, "before0:,18:OK ann@example.com,");
  std::string_view rest = stream;
  rest.remove_prefix(6);
  const NetstringFrame first = parseNetstring(rest, 100);
  EXPECT_EQ(first.payload, "");
  rest.remove_prefix(first.consumed);
  EXPECT_EQ(parseNetstring(rest, 100).payload, "OK ann@example.com");
}

}  // namespace
}  // namespace Tessel::Serve
