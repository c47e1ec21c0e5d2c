// The rules as they are at a time.
#include "serve/answer/CurrentRules.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using Presence = RuleImage::Presence;

TEST(CurrentRules, AreNoneWithoutATable) {
  const Settings settings;
  Tables tables(settings);
  CurrentRules current(tables);
  EXPECT_EQ(current.refresh(Clock::now()), "");
  EXPECT_FALSE(current.hasTable());
  EXPECT_EQ(current.rules().image, nullptr);
}

TEST(CurrentRules, HaveAnotherNumberWithEachImageAndEachAliasThatExpires) {
  const Settings settings;
  Tables tables(settings);
  CurrentRules current(tables);
  current.refresh(Clock::now());
  const TablePointer table = tables.add("rules");
  EXPECT_EQ(current.refresh(Clock::now()), "the rules of aliases: the table could not be read yet");
  EXPECT_TRUE(current.hasTable());
  const Clock::time_point now = Clock::now();
  const auto inTen =
      std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()) + 10s;
  publishRows(*table, {{"alias a@d", "anyone\t" + Tool::timeText(inTen) + "\t\t"}});
  EXPECT_EQ(current.refresh(now), "");
  const std::uint64_t first = current.number();
  EXPECT_EQ(current.rules().presence("alias", "a@d"), Presence::There);
  EXPECT_EQ(current.refresh(now + 9s), "");
  EXPECT_EQ(current.number(), first);
  EXPECT_EQ(current.refresh(now + 11s), "");
  EXPECT_GT(current.number(), first);
  EXPECT_EQ(current.rules().presence("alias", "a@d"), Presence::Expired);
  const std::uint64_t second = current.number();
  current.sweep();
  EXPECT_EQ(current.refresh(now + 12s), "");
  EXPECT_EQ(current.number(), second);
  publishRows(*table, {});
  EXPECT_EQ(current.refresh(now + 12s), "");
  EXPECT_GT(current.number(), second);
  EXPECT_EQ(current.rules().presence("alias", "a@d"), Presence::There);
}

TEST(CurrentRules, AreNoneAgainWhenTheTableIsGoneForGood) {
  const Settings settings;
  Tables tables(settings);
  CurrentRules current(tables);
  const TablePointer table = tables.add("rules");
  publishRows(*table, {{"alias a@d", "anyone\t2001-01-01 00:00:00\t\t"}});
  EXPECT_EQ(current.refresh(Clock::now()), "");
  const std::uint64_t first = current.number();
  table->setState(TableState::Missing);
  EXPECT_NE(current.refresh(Clock::now()), "");
  tables.remove("rules");
  EXPECT_EQ(current.refresh(Clock::now()), "");
  EXPECT_GT(current.number(), first);
  EXPECT_EQ(current.rules().presence("alias", "a@d"), Presence::There);
}

}  // namespace
}  // namespace Tessel::Serve
