// The rules of aliases in memory: which one counts, and what has expired.
#include "serve/image/RuleImage.h"

#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::sys_seconds;
using Presence = RuleImage::Presence;
using Tool::Writers;

const sys_seconds s_noon = *Tool::parseTime("2026-06-01 12:00:00");

Writers s_writersOf(const RuleImage& image, const char* table, const char* key) {
  const auto rule = image.rule(table, key);
  EXPECT_TRUE(rule) << key;
  return rule ? rule->writers : Writers::Anyone;
}

TEST(RuleImage, AnAliasHasItsOwnRuleBeforeThatOfItsTable) {
  const RuleImage image(sourceOf({{"alias Team@D.example", "members\t\t\t"},
                                  {"alias ", "domain\t\tann@d.example\t"},
                                  {"alias_x team@d.example", "listed\t\tbob@d.example\ta@d,b@d"}}));
  EXPECT_EQ(s_writersOf(image, "alias", "team@d.example"), Writers::Members);
  EXPECT_EQ(s_writersOf(image, "alias", "other@d.example"), Writers::Domain);
  EXPECT_EQ(s_writersOf(image, "alias_x", "other@d.example"), Writers::Anyone);
  EXPECT_EQ(s_writersOf(image, "alias_y", "team@d.example"), Writers::Anyone);
  const auto rule = image.rule("alias_x", "team@d.example");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->writers, Writers::Listed);
  EXPECT_EQ(rule->listed.size(), 2U);
  EXPECT_EQ(rule->owners.begin()->address(), "bob@d.example");
  EXPECT_EQ(image.rows().size(), 3U);
  EXPECT_FALSE(image.hasExpiries());
}

TEST(RuleImage, AnAliasExpiresInTheFirstSecondOfItsTime) {
  const RuleImage image(sourceOf({{"alias a@d", "anyone\t2026-06-01 12:00:00\t\t"},
                                  {"alias b@d", "anyone\t2026-06-01 12:00:09\t\t"},
                                  {"alias c@d", "anyone\t\t\t"},
                                  {"alias_x ", "anyone\t2026-06-01 12:00:00\t\t"},
                                  {"alias_x c@d", "members\t\t\t"}}));
  const auto before = s_noon - std::chrono::seconds(1);
  EXPECT_EQ(image.presence("alias", "a@d", before), Presence::There);
  EXPECT_EQ(image.presence("alias", "a@d", s_noon), Presence::Expired);
  EXPECT_EQ(image.presence("alias", "b@d", s_noon), Presence::There);
  EXPECT_EQ(image.presence("alias", "c@d", s_noon), Presence::There);
  // The rule of the table, unless an alias has its own.
  EXPECT_EQ(image.presence("alias_x", "a@d", s_noon), Presence::Expired);
  EXPECT_EQ(image.presence("alias_x", "c@d", s_noon), Presence::There);
  EXPECT_EQ(image.expired(before), 0U);
  EXPECT_EQ(image.expired(s_noon), 2U);
  EXPECT_EQ(image.nextExpiry(before), s_noon);
  EXPECT_EQ(image.nextExpiry(s_noon), s_noon + std::chrono::seconds(9));
  EXPECT_FALSE(image.nextExpiry(s_noon + std::chrono::seconds(9)));
}

TEST(RuleImage, IsOpenWhenEverybodyMayWriteToEveryAlias) {
  const auto isOpen = [](const Rows& rows) { return RuleImage(sourceOf(rows)).isOpen(); };
  EXPECT_TRUE(isOpen({}));
  EXPECT_TRUE(isOpen({{"alias a@d", "anyone\t\to@d\t"}, {"alias_x ", "anyone\t\t\t"}}));
  EXPECT_FALSE(isOpen({{"alias a@d", "members\t\t\t"}, {"alias b@d", "anyone\t\t\t"}}));
  EXPECT_FALSE(isOpen({{"alias a@d", "nonsense\t\t\t"}}));
}

TEST(RuleImage, ARowThatIsNoRuleMakesItsAliasUnknown) {
  const RuleImage image(sourceOf({{"alias a@d", "nonsense\t\t\t"},
                                  {"alias b@d", "anyone\tsoon\t\t"},
                                  {"alias c@d", "members\t\t@\t"},
                                  {"alias e@d", "members"},
                                  {"alias f@d", "members\t\t\t"},
                                  {"alias F@D", "anyone\t\t\t"},
                                  {"alias no address", "anyone\t\t\t"},
                                  {"alias_x ", "nonsense\t\t\t"},
                                  {"alias_x a@d", "anyone\t\t\t"}}));
  for (const char* key : {"a@d", "b@d", "c@d", "e@d"}) {
    EXPECT_FALSE(image.rule("alias", key)) << key;
    EXPECT_EQ(image.presence("alias", key, s_noon), Presence::Unknown) << key;
  }
  EXPECT_EQ(s_writersOf(image, "alias", "f@d"), Writers::Members);
  EXPECT_EQ(s_writersOf(image, "alias_x", "a@d"), Writers::Anyone);
  EXPECT_FALSE(image.rule("alias_x", "b@d"));
  EXPECT_EQ(image.presence("alias", "z@d", s_noon), Presence::There);
  EXPECT_EQ(image.brokenRows().count(), 7U);
  std::map<std::string, std::string> why;
  for (const auto& row : image.brokenRows().first()) why[row.name] = row.why;
  EXPECT_EQ(why["alias a@d"], "bad rule: it cannot be read");
  EXPECT_EQ(why["alias F@D"], "another rule is of the same address");
  EXPECT_EQ(why["alias no address"], "bad rule: nobody can ask for its alias");
}

}  // namespace
}  // namespace Tessel::Serve
