// Replies that are given again: only those of the same key, only in their time, and never more than
// there are places for.
#include "serve/answer/AnswerCache.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

using std::chrono::seconds;

const Clock::time_point s_now = Clock::now();

AnswerCache::Entry s_entry(const std::string& key, const std::string& reply,
                           Clock::time_point until = Clock::time_point::max()) {
  return {key, reply, Result::Ok, until};
}

// The reply that is known for `key`; "none" for none.
std::string s_find(const AnswerCache& cache, const std::string& key,
                   Clock::time_point now = s_now) {
  const AnswerCache::Entry* const entry = cache.find(key, now);
  return entry == nullptr ? "none" : std::string(entry->reply());
}

TEST(AnswerCache, GivesTheReplyOfTheSameKeyOnly) {
  AnswerCache cache(4, 100);
  EXPECT_EQ(s_find(cache, "a"), "none");
  cache.keep(s_entry("a", "OK 1"));
  EXPECT_EQ(s_find(cache, "a"), "OK 1");
  EXPECT_EQ(s_find(cache, "A"), "none");
  EXPECT_EQ(s_find(cache, ""), "none");
  EXPECT_EQ(cache.find("a", s_now)->result(), Result::Ok);
}

TEST(AnswerCache, ANewReplyTakesThePlaceOfTheOld) {
  AnswerCache cache(1, 100);
  for (int i = 0; i < 10; ++i) cache.keep(s_entry("a", "OK " + std::to_string(i)));
  cache.keep(s_entry("b", "OK b"));
  cache.keep(s_entry("c", "OK c"));
  cache.keep(s_entry("d", "OK d"));
  EXPECT_EQ(s_find(cache, "a"), "OK 9");
}

TEST(AnswerCache, AReplyIsForgottenWhenItsTimeIsOver) {
  AnswerCache cache(1, 100);
  cache.keep(s_entry("a", "OK 1", s_now + seconds(1)));
  EXPECT_EQ(s_find(cache, "a"), "OK 1");
  EXPECT_EQ(s_find(cache, "a", s_now + seconds(1)), "none");
  cache.keep(s_entry("a", "OK 2", s_now + seconds(9)));
  EXPECT_EQ(s_find(cache, "a", s_now + seconds(1)), "OK 2");
}

TEST(AnswerCache, TheOldestOfAGroupMakesRoom) {
  AnswerCache cache(1, 100);
  for (const char* key : {"a", "b", "c", "d", "e"}) cache.keep(s_entry(key, "OK"));
  EXPECT_EQ(s_find(cache, "a"), "none");
  for (const char* key : {"b", "c", "d", "e"}) EXPECT_EQ(s_find(cache, key), "OK") << key;
}

TEST(AnswerCache, HoldsNoMoreThanItHasPlacesFor) {
  AnswerCache cache(4, 100);
  for (int i = 0; i < 1000; ++i) cache.keep(s_entry(std::to_string(i), std::to_string(i)));
  int kept = 0;
  for (int i = 0; i < 1000; ++i) {
    const std::string key = std::to_string(i);
    const std::string reply = s_find(cache, key);
    if (reply == "none") continue;
    EXPECT_EQ(reply, key);
    ++kept;
  }
  EXPECT_GT(kept, 0);
  EXPECT_LE(kept, 16);
}

TEST(AnswerCache, WhatIsTooLongIsNotKept) {
  AnswerCache cache(1, 10);
  cache.keep(s_entry("key", "1234567"));
  cache.keep(s_entry("long", "1234567"));
  EXPECT_EQ(s_find(cache, "key"), "1234567");
  EXPECT_EQ(s_find(cache, "long"), "none");
}

TEST(AnswerCache, ForgetsAllAtOnce) {
  AnswerCache cache(4, 100);
  cache.keep(s_entry("a", "OK 1"));
  cache.clear();
  EXPECT_EQ(s_find(cache, "a"), "none");
  cache.keep(s_entry("a", "OK 2"));
  EXPECT_EQ(s_find(cache, "a"), "OK 2");
}

}  // namespace
}  // namespace Tessel::Serve
