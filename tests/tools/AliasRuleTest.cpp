// AliasRule: rules as the table, exports and the history have them.
#include "tables/AliasRule.h"

#include <chrono>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "failure/Failure.h"

namespace Tessel::Tool {
namespace {

using std::chrono::sys_days;

EmailAddress s_mail(const char* text) {
  return EmailAddress::rfc5321Parse(text, false);
}

TEST(AliasRule, TimesAreWrittenAsTheyAreRead) {
  using namespace std::chrono_literals;
  const auto time = sys_days(2026y / 12 / 31) + 23h + 59min + 58s;
  EXPECT_EQ(timeText(time), "2026-12-31 23:59:58");
  for (const char* text : {"2026-12-31 23:59:58", "2026-12-31T23:59:58", "2026-12-31T23:59:58Z"}) {
    EXPECT_EQ(parseTime(text), time) << text;
  }
  EXPECT_EQ(parseTime("2026-12-31"), sys_days(2026y / 12 / 31));
  for (const char* text : {"", "tomorrow", "2026-02-30", "2026-12-31 24:00:00", "2026-12-31 23:59",
                           "2026-12-31 23:59:58 x", "26-12-31", "2026-12-31x"}) {
    EXPECT_EQ(parseTime(text), std::nullopt) << text;
  }
}

TEST(AliasRule, ALineHasWhatItSaysAndComesBack) {
  EXPECT_EQ(ruleText({}), "writers=anyone");
  AliasRule rule;
  rule.writers = Writers::Listed;
  rule.listed = {s_mail("ann@example.com"), s_mail("\"a %b,c\"@example.com")};
  rule.owners = {s_mail("bob@example.com")};
  rule.expires = parseTime("2026-12-31");
  rule.contact = s_mail("carl@example.com");
  rule.note = "ask first, 100% sure";
  const std::string text = ruleText(rule);
  EXPECT_EQ(text,
            "writers=listed listed=\"a%20%25b,c\"@example.com,ann@example.com"
            " owners=bob@example.com expires=2026-12-31T00:00:00Z contact=carl@example.com"
            " note=ask first, 100% sure");
  EXPECT_EQ(ruleText(parseRule(text)), text);
  EXPECT_EQ(parseRule(text).listed, rule.listed);
}

TEST(AliasRule, LinesThatAreNoRuleAreRefused) {
  for (const char* text : {"writers=everyone", "members", "owners=no address", "owners=@",
                           "expires=soon", "colour=red"}) {
    EXPECT_THROW(parseRule(text), Failure) << text;
  }
}

TEST(AliasRule, ARowOfAnotherProgramThatIsNoRuleIsNone) {
  const TextRow good{"key", "members", "", "ann@example.com", "2026-12-31 00:00:00", "note", ""};
  const auto rule = readRule(good, 1);
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->writers, Writers::Members);
  EXPECT_EQ(rule->expires, parseTime("2026-12-31"));
  for (const std::size_t column : {1U, 2U, 3U, 4U, 6U}) {
    TextRow bad = good;
    bad[column] = "@";
    EXPECT_FALSE(readRule(bad, 1)) << column;
  }
}

}  // namespace
}  // namespace Tessel::Tool
