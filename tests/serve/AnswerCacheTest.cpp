// Replies that are given again: only those of the same key from the same image, only in their time,
// and never with more memory than there is for them.
#include "serve/answer/AnswerCache.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

const Clock::time_point s_now = Clock::now();
constexpr AnswerCache::Source s_source{1, 1};

class AnswerCacheTest : public testing::Test {
 protected:
  void keep(const std::string& key, const std::string& reply,
            Clock::time_point until = Clock::time_point::max(), Clock::time_point now = s_now,
            const AnswerCache::Source& source = s_source) {
    m_cache.keep(source, key, reply, Result::Ok, until, now);
  }

  // The reply that is known for `key`; "none" for none.
  std::string find(const std::string& key, Clock::time_point now = s_now,
                   const AnswerCache::Source& source = s_source) const {
    const AnswerCache::Entry* const entry = m_cache.find(source, key, now);
    return entry == nullptr ? "none" : std::string(entry->reply());
  }

  // Keeps `count` replies; returns how many of them are known afterwards.
  int fill(int count) {
    for (int i = 0; i < count; ++i) keep(std::to_string(i), "reply " + std::to_string(i));
    int known = 0;
    for (int i = 0; i < count; ++i) {
      const std::string reply = find(std::to_string(i));
      if (reply == "none") continue;
      EXPECT_EQ(reply, "reply " + std::to_string(i));
      ++known;
    }
    return known;
  }

  // Sweeps all of it, at `now`.
  void sweep(Clock::time_point now) {
    for (int i = 0; i < 20; ++i) m_cache.sweep(now);
  }

  MemoryBudget m_budget{100000};
  AnswerCache m_cache{m_budget};
};

TEST_F(AnswerCacheTest, GivesTheReplyOfTheSameKeyOnly) {
  EXPECT_EQ(find("a"), "none");
  keep("a", "OK 1");
  EXPECT_EQ(find("a"), "OK 1");
  EXPECT_EQ(find("A"), "none");
  EXPECT_EQ(find(""), "none");
  EXPECT_EQ(m_cache.find(s_source, "a", s_now)->result(), Result::Ok);
  EXPECT_EQ(m_cache.find(s_source, "a", s_now)->key(), "a");
}

TEST_F(AnswerCacheTest, GivesRepliesOfTheSameTableAndImageOnly) {
  keep("a", "OK 1");
  EXPECT_EQ(find("a", s_now, {2, 1}), "none");
  EXPECT_EQ(find("a", s_now, {1, 2}), "none");
  keep("a", "OK 2", Clock::time_point::max(), s_now, {2, 1});
  EXPECT_EQ(find("a"), "OK 1");
  keep("a", "OK 3", Clock::time_point::max(), s_now, {1, 2});
  EXPECT_EQ(find("a"), "none");
  EXPECT_EQ(find("a", s_now, {1, 2}), "OK 3");
}

TEST_F(AnswerCacheTest, ANewReplyTakesThePlaceOfTheOld) {
  keep("a", "x");
  const std::size_t before = m_budget.used();
  for (int i = 0; i < 10; ++i) keep("a", std::to_string(i));
  EXPECT_EQ(find("a"), "9");
  EXPECT_EQ(m_budget.used(), before);
}

TEST_F(AnswerCacheTest, AReplyIsForgottenWhenItsTimeIsOver) {
  keep("a", "OK 1", s_now + seconds(1));
  EXPECT_EQ(find("a"), "OK 1");
  EXPECT_EQ(find("a", s_now + seconds(1)), "none");
  keep("a", "OK 2", s_now + seconds(9));
  EXPECT_EQ(find("a", s_now + seconds(1)), "OK 2");
}

TEST_F(AnswerCacheTest, GrowsWithWhatIsKept) {
  m_cache.keep(s_source, "a", "OK", Result::Ok, Clock::time_point::max(), s_now);
  EXPECT_LT(m_budget.used(), 10000U);
  EXPECT_GT(fill(400), 380);
}

TEST_F(AnswerCacheTest, NeverTakesMoreThanThereIs) {
  const int known = fill(10000);
  EXPECT_GT(known, 100);
  EXPECT_LT(known, 2000);
  EXPECT_LE(m_budget.used(), m_budget.most());
}

TEST_F(AnswerCacheTest, KeepsNothingWhenOthersHaveAllTheMemory) {
  ASSERT_TRUE(m_budget.take(m_budget.most()));
  keep("a", "OK");
  EXPECT_EQ(find("a"), "none");
  m_budget.give(4000);
  keep("a", "OK");
  EXPECT_EQ(find("a"), "none");
  m_budget.give(m_budget.most() - 4000);
  keep("a", "OK");
  EXPECT_EQ(find("a"), "OK");
}

TEST_F(AnswerCacheTest, OneReplyNeverTakesTheRoomOfAll) {
  fill(100);
  // With its key it takes a sixteenth of the memory.
  const std::size_t most = 100000 / 16 - sizeof(AnswerCache::Entry) - std::string("long").size();
  keep("long", std::string(most + 1, 'x'));
  EXPECT_EQ(find("long"), "none");
  keep("long", std::string(most, 'x'));
  EXPECT_EQ(find("long"), std::string(most, 'x'));
}

TEST_F(AnswerCacheTest, WhatIsAskedForStaysLongest) {
  keep("used", "OK");
  int lost = 0;
  for (int i = 0; i < 10000; ++i) {
    const Clock::time_point now = s_now + std::chrono::milliseconds(i);
    keep(std::to_string(i), "OK", Clock::time_point::max(), now);
    if (find("used", now) != "none") continue;
    keep("used", "OK", Clock::time_point::max(), now);
    ++lost;
  }
  // Where its group has no other, it goes as well.
  EXPECT_LT(lost, 5);
  EXPECT_EQ(find("9999"), "OK");
  EXPECT_EQ(find("0"), "none");
}

TEST_F(AnswerCacheTest, GivesBackWhatIsNotUsed) {
  EXPECT_GT(fill(500), 400);
  keep("used", "OK", Clock::time_point::max(), s_now + minutes(4));
  keep("late", "OK", s_now + minutes(4), s_now + minutes(3));
  sweep(s_now + minutes(4));
  EXPECT_EQ(find("late", s_now + minutes(3)), "none");
  sweep(s_now + minutes(6));
  EXPECT_EQ(find("used", s_now + minutes(6)), "OK");
  EXPECT_EQ(find("0"), "none");
  EXPECT_LT(m_budget.used(), 10000U);
  sweep(s_now + minutes(12));
  EXPECT_EQ(m_budget.used(), 0U);
}

// Bytes of a group: as large as a line of the processor's caches. How many an entry takes depends
// on the heap.
constexpr std::size_t s_group = 64;

TEST_F(AnswerCacheTest, HasSixtyFourGroupsAtFirst) {
  keep("a", "x");
  constexpr std::size_t least = sizeof(AnswerCache::Entry) + 2;
  EXPECT_GE(m_budget.used(), 64 * s_group + least);
  EXPECT_LT(m_budget.used(), 65 * s_group + least);
}

TEST_F(AnswerCacheTest, HalvesItsGroupsWhileThereAreTwiceAsManyAsEntries) {
  EXPECT_GT(fill(500), 400);
  for (int i = 0; i < 100; ++i) {
    keep("u" + std::to_string(i), "OK", Clock::time_point::max(), s_now + minutes(4));
  }
  // What it takes after each part of a sweep; there were 512 groups.
  std::vector<std::size_t> used;
  const auto sweepOnce = [&](int minute) {
    m_cache.sweep(s_now + minutes(minute));
    used.push_back(m_budget.used());
  };
  for (int i = 0; i < 3; ++i) sweepOnce(6);
  EXPECT_EQ(used[0] - used[1], 128 * s_group);
  EXPECT_EQ(used[1], used[2]);
  EXPECT_GT(used[2], 128 * s_group);
  for (int i = 0; i < 90; ++i) keep("u" + std::to_string(i), "OK", s_now + minutes(7));
  for (int i = 0; i < 2; ++i) sweepOnce(8);
  EXPECT_EQ(used[3], used[4]);
  EXPECT_GT(used[4], 64 * s_group);
  EXPECT_LT(used[4], 128 * s_group);
}

TEST(AnswerCache, GivesAllItsMemoryBackAtItsEnd) {
  MemoryBudget budget(100000);
  {
    AnswerCache cache(budget);
    for (int i = 0; i < 300; ++i) {
      cache.keep(s_source, std::to_string(i), "OK", Result::Ok, Clock::time_point::max(), s_now);
    }
    EXPECT_GT(budget.used(), 20000U);
  }
  EXPECT_EQ(budget.used(), 0U);
}

}  // namespace
}  // namespace Tessel::Serve
