// Served tables: which there may be, and the images that they change to.
#include "serve/image/Table.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST(Table, HasNoImageAndNoAgeAtFirst) {
  const Settings settings;
  const Table table(TableKind::Alias, "");
  EXPECT_EQ(table.sqlName(), "alias");
  EXPECT_EQ(table.image(), nullptr);
  EXPECT_EQ(table.generation(), 0U);
  EXPECT_FALSE(table.age(Clock::now()));
}

TEST(Table, AnImageIsReplacedAndLivesAsLongAsItIsUsed) {
  const Settings settings;
  Table table(TableKind::Mask, "second");
  EXPECT_EQ(table.sqlName(), "mask_second");
  publishRows(table, {{"a@d", "b@d"}});
  const ImagePointer old = table.image();
  const std::uint64_t generation = table.generation();
  publishRows(table, {{"a@d", "b@d"}, {"c@d", "d@d"}});
  EXPECT_NE(table.generation(), generation);
  EXPECT_EQ(old->rows().size(), 1U);
  EXPECT_EQ(table.image()->rows().size(), 2U);
}

TEST(Table, AnImageKeepsNoRoomForMoreRows) {
  const Rows rows{{"alias a@d", "anyone\t\t\t"},
                  {"alias b@d", "anyone\t\t\t"},
                  {"alias c@d", "anyone\t\t\t"},
                  {"alias d@d", "anyone\t\t\t"},
                  {"alias e@d", "anyone\t\t\t"}};
  const TableImage rules(TableKind::Rules, sourceOf(rows));
  const Rows pairs{{"a@d", "v@d"}, {"b@d", "w@d"}, {"c@d", "x@d"}, {"d@d", "y@d"}, {"e@d", "z@d"}};
  const TableImage aliases(TableKind::Alias, sourceOf(pairs));
  const TableImage masks(TableKind::Mask, sourceOf(pairs));
  for (const TableImage* image : {&rules, &aliases, &masks}) {
    RowStore exact;
    for (RowStore::Id id = 0; id < 5; ++id) {
      exact.add(image->rows().first(id), image->rows().second(id));
    }
    EXPECT_GT(exact.bytes(), image->rows().bytes());
    exact.shrink();
    EXPECT_EQ(exact.bytes(), image->rows().bytes());
  }
}

TEST(Table, ItsAgeIsThatOfTheLastLook) {
  const Settings settings;
  Table table(TableKind::Alias, "");
  const Clock::time_point now = Clock::now();
  table.confirm(now - minutes(3));
  EXPECT_EQ(table.age(now), minutes(3));
  table.confirm(now);
  EXPECT_EQ(table.age(now), seconds(0));
}

TEST(Table, AnImageIsTooOldBehindTheLimitOrNever) {
  Settings settings;
  settings.stale = minutes(1);
  EXPECT_FALSE(isTooOld(minutes(1), settings));
  EXPECT_TRUE(isTooOld(minutes(1) + seconds(1), settings));
  settings.stale = seconds(0);
  EXPECT_FALSE(isTooOld(seconds(5), settings));
  EXPECT_TRUE(isTooOld(seconds(6), settings));
  settings.stale.reset();
  EXPECT_FALSE(isTooOld(std::chrono::hours(100000), settings));
}

TEST(Table, ThreadsReadImagesWhileTheyChange) {
  const Settings settings;
  Table table(TableKind::Alias, "");
  publishRows(table, {{"a@d", "b@d"}});
  std::atomic<bool> isDone{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!isDone) {
        const ImagePointer image = table.image();
        if (image->alias().expand("a@d").kind != Expansion::Kind::Found) ++wrong;
        if (!table.age(Clock::now())) ++wrong;
      }
    });
  }
  for (int i = 0; i < 200; ++i) publishRows(table, {{"a@d", "b@d"}});
  isDone = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST(Tables, HoldTablesOfTheLibraryOnly) {
  const Settings settings;
  Tables tables(settings);
  for (const char* name : {"alias", "alias_second", "mask", "mask_a-b.c$1", "mask_mask_x"}) {
    ASSERT_NE(tables.add(name), nullptr) << name;
    EXPECT_EQ(tables.add(name), tables.find(name)) << name;
    EXPECT_EQ(tables.find(name)->sqlName(), name);
  }
  EXPECT_EQ(tables.find("mask_mask_x")->kind(), TableKind::Mask);
  EXPECT_EQ(tables.find("alias_second")->kind(), TableKind::Alias);
  for (const char* name : {"", "other", "Alias", "aliases", "alias_", "mask_", "alias-x",
                           "alias_a/b", "alias_a b", "alias_`", "alias_\u00fc", "alias_a\n"}) {
    EXPECT_EQ(tables.add(name), nullptr) << name;
    EXPECT_EQ(tables.find(name), nullptr) << name;
  }
  EXPECT_EQ(tables.find("alias_third"), nullptr);
}

TEST(Tables, AreGivenInTheOrderOfTheirNames) {
  const Settings settings;
  Tables tables(settings);
  for (const char* name : {"mask", "alias_b", "alias", "alias_a"}) tables.add(name);
  std::vector<std::string> names;
  for (const TablePointer& table : tables.all()) names.push_back(table->sqlName());
  EXPECT_THAT(names, ElementsAre("alias", "alias_a", "alias_b", "mask"));
}

TEST(Tables, MayBeLimitedToSomeAndTheBaseTables) {
  Settings settings;
  settings.tables = {"wanted"};
  Tables tables(settings);
  for (const char* name : {"alias", "mask", "alias_wanted", "mask_wanted"}) {
    EXPECT_NE(tables.add(name), nullptr) << name;
  }
  EXPECT_EQ(tables.add("alias_other"), nullptr);
  EXPECT_EQ(tables.add("mask_wanted2"), nullptr);
}

TEST(Tables, RememberForAMinuteWhatWasAskedForAndIsNotServed) {
  const Settings settings;
  Tables tables(settings);
  const Clock::time_point now = Clock::now();
  tables.noteUnknown("alias_x", now - seconds(30));
  tables.noteUnknown("mask_y", now);
  EXPECT_THAT(tables.unknown(now), ElementsAre("alias_x", "mask_y"));
  EXPECT_THAT(tables.unknown(now + seconds(31)), ElementsAre("mask_y"));
  tables.add("mask_y");
  EXPECT_THAT(tables.unknown(now), ElementsAre("alias_x"));
}

TEST(Tables, RememberOnlyAFewUnknownNamesThatATableCanHave) {
  const Settings settings;
  Tables tables(settings);
  const Clock::time_point now = Clock::now();
  for (const std::string& name : {std::string("other"), std::string("alias_a b"),
                                  "alias_" + std::string(60, 'x'), std::string("alias_a@b")}) {
    tables.noteUnknown(name, now);
  }
  EXPECT_THAT(tables.unknown(now), IsEmpty());
  const std::string longest = "alias_" + std::string(58, 'n');
  tables.noteUnknown(longest + "n", now);
  tables.noteUnknown(longest, now);
  EXPECT_THAT(tables.unknown(now), ElementsAre(longest));
  for (int i = 0; i < 100; ++i) tables.noteUnknown("alias_" + std::to_string(i), now);
  EXPECT_THAT(tables.unknown(now), SizeIs(8));
  // Others take the places of those that are not asked for any more.
  const Clock::time_point later = now + minutes(2);
  tables.noteUnknown("alias_x", later);
  EXPECT_THAT(tables.unknown(later), ElementsAre("alias_x"));
}

TEST(Tables, KnowWhatWasRemovedUntilItIsThereAgain) {
  const Settings settings;
  Tables tables(settings);
  EXPECT_FALSE(tables.isRemoved("alias_x"));
  tables.add("alias_x");
  tables.remove("alias_x");
  EXPECT_TRUE(tables.isRemoved("alias_x"));
  tables.add("alias_x");
  EXPECT_FALSE(tables.isRemoved("alias_x"));
}

}  // namespace
}  // namespace Tessel::Serve
