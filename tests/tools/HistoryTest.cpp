// Tests of the record of changes: what it says, and how many rows become one text.
#include "tables/History.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "failure/Failure.h"

namespace Tessel::Tool {
namespace {

std::vector<RowChange> s_unpacked(const std::string& text) {
  std::vector<RowChange> rows;
  unpack("alias", text, [&rows](RowChange row) { rows.push_back(std::move(row)); });
  return rows;
}

TEST(History, ManyRowsAreOneTextAndBack) {
  const std::vector<RowChange> rows{{"alias", "a@d", std::nullopt, "b@d"},
                                    {"alias", "7 7 7\n", "", std::nullopt},
                                    {"alias", "", "-", "\n\\'"},
                                    {"mask", "x", "y", "z"}};
  const std::string text = packed(rows, 0, 3);
  EXPECT_EQ(text.substr(0, 14), "3 - 3\na@db@d\n6");
  const std::vector<RowChange> same = s_unpacked(text);
  ASSERT_EQ(same.size(), 3U);
  for (std::size_t i = 0; i < same.size(); ++i) {
    EXPECT_EQ(same[i].table, "alias");
    EXPECT_EQ(same[i].name, rows[i].name);
    EXPECT_EQ(same[i].before, rows[i].before);
    EXPECT_EQ(same[i].after, rows[i].after);
  }
}

TEST(History, ATextThatIsCutOrChangedIsRefused) {
  const std::string text = packed({{"alias", "a@d", "b@d", std::nullopt}}, 0, 1);
  EXPECT_EQ(s_unpacked("").size(), 0U);
  EXPECT_EQ(s_unpacked(text).size(), 1U);
  for (std::size_t size = 1; size < text.size(); ++size) {
    EXPECT_THROW(s_unpacked(text.substr(0, size)), Failure) << size;
  }
  for (const char* const bad : {"- 1 1\nab\n", "x 1 1\n", "1 1 1\nabcd",
                                "99999999999999999999 - -\n", "1  1\nab\n", "1 1-1\nabc\n"}) {
    EXPECT_THROW(s_unpacked(bad), Failure) << bad;
  }
}

TEST(History, AChangeReadsLikeADryRun) {
  EXPECT_EQ(textOf(RowChange{"alias", "a@d", std::nullopt, "b@d"}), "+ a@d:b@d");
  EXPECT_EQ(textOf(RowChange{"mask", "a@d", "b@d", std::nullopt}), "- a@d:b@d");
  EXPECT_EQ(textOf(RowChange{"alias", "a@d", "b@d", "b@d,c@d"}), "~ a@d:b@d -> b@d,c@d");
  EXPECT_EQ(textOf(RowChange{"mask", "a@d", "b@d", "c@d"}), "~ a@d:b@d -> c@d");
  EXPECT_EQ(textOf(RowChange{"alias_x", "", std::nullopt, "create table alias_x"}),
            "+ create table alias_x");
  EXPECT_EQ(userText("root", "ann"), "ann as root");
  EXPECT_EQ(userText("ann", ""), "ann");
}

TEST(History, TheSummaryOfAChangeIsShort) {
  ChangeSummary summary;
  EXPECT_EQ(summary.text(), "");
  summary.add({"alias", "a@d", std::nullopt, std::string(500, 'x') + "\n"});
  EXPECT_EQ(summary.text(), "alias + a@d:" + std::string(194, 'x') + "...");
  for (int i = 0; i < 5; ++i) summary.add({"mask", "a\n", std::nullopt, "b"});
  EXPECT_TRUE(summary.text().ends_with("...; mask + a\\x0a:b; mask + a\\x0a:b; and 3 more rows"))
      << summary.text();
}

}  // namespace
}  // namespace Tessel::Tool
