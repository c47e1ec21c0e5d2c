// UsedAliases: what is written is read again, and what is no whole file is refused.
#include "tables/UsedAliases.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

using namespace std::chrono_literals;

constexpr UsedAliases::Time s_since = std::chrono::sys_days(2026y / 12 / 31) + 23h;

std::string s_written(UsedAliases& used) {
  std::string content;
  used.write(s_since + 90min, [&](std::string_view part) { content += part; });
  return content;
}

std::string s_three() {
  UsedAliases used(s_since);
  EXPECT_TRUE(used.add("alias_sales team@b.example"));
  EXPECT_TRUE(used.add("alias x@b.example"));
  EXPECT_TRUE(used.add("alias a b@b.example"));
  EXPECT_FALSE(used.add("alias x@b.example"));
  return s_written(used);
}

TEST(UsedAliases, AFileIsSortedAndSaysForWhichTimeItCounts) {
  EXPECT_EQ(s_three(),
            "tsl-address-map used aliases 1 since 2026-12-31 23:00:00 until 2027-01-01 00:30:00"
            " count 3\n"
            "alias a b@b.example\nalias x@b.example\nalias_sales team@b.example\n");
}

TEST(UsedAliases, AFileIsReadAsItWasWritten) {
  UsedAliases used{std::string_view(s_three())};
  EXPECT_EQ(used.since(), s_since);
  EXPECT_EQ(used.until(), s_since + 90min);
  EXPECT_TRUE(used.has("alias", "a b@b.example"));
  EXPECT_TRUE(used.has("alias_sales", "team@b.example"));
  EXPECT_FALSE(used.has("alias", "team@b.example"));
  EXPECT_FALSE(used.has("alias_other", "x@b.example"));
  EXPECT_EQ(s_written(used), s_three());
}

TEST(UsedAliases, WhatIsGoneIsLeftOut) {
  UsedAliases used{std::string_view(s_three())};
  used.keep([](const std::string& table, std::string_view key) {
    return table == "alias" && key != "x@b.example";
  });
  EXPECT_EQ(s_written(used),
            "tsl-address-map used aliases 1 since 2026-12-31 23:00:00 until 2027-01-01 00:30:00"
            " count 1\nalias a b@b.example\n");
}

TEST(UsedAliases, WhatIsNoWholeFileIsRefused) {
  const std::string good = s_three();
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_THROW(UsedAliases(std::string_view(good).substr(0, size)), std::runtime_error) << size;
  }
  const std::string header = good.substr(0, good.find('\n'));
  for (const std::string& wrong :
       {"x" + good, good + "\n", good + "alias y@b.example\n", header + "\nx\ny\nz\n",
        header + "\nalias x\nalias x\nalias y\n", std::string("root:x:0:0:root:/root:/bin/bash\n"),
        "tsl-address-map used aliases 2" + good.substr(good.find(" since")),
        header + " \n" + good.substr(header.size() + 1)}) {
    EXPECT_THROW(UsedAliases{std::string_view(wrong)}, std::runtime_error) << wrong;
  }
}

}  // namespace
}  // namespace Tessel::Tool
