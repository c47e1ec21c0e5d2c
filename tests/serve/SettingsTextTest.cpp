// Values of the service's options.
#include "serve/base/SettingsText.h"

#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "failure/Failure.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

// What the failure of `call` says to do; empty when it does not fail as it must.
std::string s_refusal(const std::function<void()>& call) {
  try {
    call();
  } catch (const Tool::Failure& failure) {
    EXPECT_EQ(failure.code(), Tool::ExitCode::Usage);
    return failure.hint();
  }
  return "";
}

milliseconds s_time(const std::string& text, milliseconds least = milliseconds(0)) {
  return parseTime("--refresh", text, least);
}

TEST(SettingsText, TimesHaveAUnit) {
  EXPECT_EQ(s_time("250ms"), milliseconds(250));
  EXPECT_EQ(s_time("1s"), seconds(1));
  EXPECT_EQ(s_time("5m"), minutes(5));
  EXPECT_EQ(s_time("1h"), hours(1));
  EXPECT_EQ(s_time("2d"), hours(48));
  EXPECT_EQ(s_time("0s"), milliseconds(0));
  EXPECT_EQ(s_time("10000d"), hours(240000));
}

TEST(SettingsText, TimesAreShownInTheirLargestUnit) {
  for (const char* text : {"250ms", "1s", "90s", "5m", "1h", "2d"}) {
    EXPECT_EQ(timeText(s_time(text)), text);
  }
  EXPECT_EQ(timeText(seconds(60)), "1m");
}

TEST(SettingsText, WhatIsNoTimeIsRefused) {
  for (const char* text : {"", "1", "s", "-1s", "+1s", " 1s", "1 s", "1s ", "1.5s", "1S", "1sec",
                           "1s1s", "10001d", "18446744073709551615s", "99999999999999999999s"}) {
    EXPECT_NE(s_refusal([&] { s_time(text); }), "") << text;
  }
  EXPECT_EQ(s_time("10ms", milliseconds(10)), milliseconds(10));
  EXPECT_NE(s_refusal([] { s_time("9ms", milliseconds(10)); }), "");
}

TEST(SettingsText, SizesMayHaveAUnit) {
  EXPECT_EQ(parseSize("--max-memory", "4096", 1), 4096U);
  EXPECT_EQ(parseSize("--max-memory", "3K", 1), 3U << 10U);
  EXPECT_EQ(parseSize("--max-memory", "512M", 1), 512U << 20U);
  EXPECT_EQ(parseSize("--max-memory", "2G", 1), std::size_t{2} << 30U);
  EXPECT_EQ(parseSize("--max-memory", "1024T", 1), std::size_t{1} << 50U);
  EXPECT_EQ(parseSize("--max-memory", "1M", 1U << 20U), 1U << 20U);
  for (const char* text : {"", "M", "1MB", "-1M", " 1M", "1 M", "1m", "1.5G", "1025T", "1023K",
                           "99999999999999999999", "18014398509481985K"}) {
    EXPECT_NE(s_refusal([&] { parseSize("--max-memory", text, 1U << 20U); }), "") << text;
  }
}

TEST(SettingsText, NumbersLieBetweenTheirLimits) {
  EXPECT_EQ(parseNumber("--page", "2", 2, 10), 2U);
  EXPECT_EQ(parseNumber("--page", "10", 2, 10), 10U);
  EXPECT_EQ(parseNumber("--page", "007", 2, 10), 7U);
  for (const char* text : {"", "1", "11", "-2", "+2", " 2", "2 ", "2k", "0x2", "2.0",
                           "18446744073709551618", "99999999999999999999"}) {
    EXPECT_NE(s_refusal([&] { parseNumber("--page", text, 2, 10); }), "") << text;
  }
}

TEST(SettingsText, RulesAndLevelsHaveNames) {
  EXPECT_EQ(parseExtensionRule("--extension", "keep"), ExtensionRule::Keep);
  EXPECT_EQ(parseExtensionRule("--extension", "drop"), ExtensionRule::Drop);
  EXPECT_EQ(parseExtensionRule("--extension", "off"), ExtensionRule::Off);
  EXPECT_EQ(parseLogLevel("--log-level", "error"), LogLevel::Error);
  EXPECT_EQ(parseLogLevel("--log-level", "warning"), LogLevel::Warning);
  EXPECT_EQ(parseLogLevel("--log-level", "info"), LogLevel::Info);
  EXPECT_EQ(parseLogLevel("--log-level", "debug"), LogLevel::Debug);
  for (const char* text : {"", "KEEP", "keep ", "info2"}) {
    EXPECT_NE(s_refusal([&] { parseExtensionRule("--extension", text); }), "") << text;
    EXPECT_NE(s_refusal([&] { parseLogLevel("--log-level", text); }), "") << text;
  }
}

TEST(SettingsText, ARefusalQuotesTheValueAndSaysWhatMayBeGiven) {
  try {
    s_time("soon");
    ADD_FAILURE() << "taken";
  } catch (const Tool::Failure& failure) {
    EXPECT_EQ(failure.subject(), "--refresh");
    EXPECT_EQ(failure.why(), "'soon' is not a value for it");
  }
  EXPECT_EQ(s_refusal([] { s_time("9ms", milliseconds(10)); }),
            "give a number with its unit, as 250ms, 1s, 5m, 1h or 2d, and at least 10ms");
  EXPECT_EQ(s_refusal([] { parseNumber("--page", "1", 2, 10); }), "give a number from 2 to 10");
  EXPECT_EQ(s_refusal([] { parseSize("--max-memory", "1", 4096); }),
            "give a size as 512M or 2G, and at least 4096");
  EXPECT_EQ(s_refusal([] { parseExtensionRule("--extension", "x"); }), "give keep, drop or off");
  EXPECT_EQ(s_refusal([] { parseLogLevel("--log-level", "x"); }),
            "give error, warning, info or debug");
}

}  // namespace
}  // namespace Tessel::Serve
