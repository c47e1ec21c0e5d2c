// Tests of the expander over memory and of the cache loader. The expander over the table is tested
// with `expandAlias`.
#include "alias/AliasExpander.h"

#include <pthread.h>

#include <algorithm>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel {
namespace {

using Cache = CacheLoader::Cache;

EmailAddress s_address(const std::string& name) {
  return EmailAddress::create(name, "d.example", true);
}

std::set<EmailAddress> s_addresses(const std::vector<std::string>& names) {
  std::set<EmailAddress> addresses;
  for (const std::string& name : names) addresses.insert(s_address(name));
  return addresses;
}

std::set<EmailAddress> s_expand(Cache& source, const std::string& name) {
  std::set<EmailAddress> result;
  AdapterExpanderNoQuery(source, result).expand(s_address(name));
  return result;
}

TEST(AdapterExpanderNoQuery, AnAddressThatIsNoAliasStandsForItselfEvenAsTheFirst) {
  Cache source(10);
  EXPECT_EQ(s_expand(source, "a"), s_addresses({"a"}));
}

TEST(AdapterExpanderNoQuery, MembersAreExpandedRecursively) {
  Cache source(10);
  source.add(s_address("a"), s_addresses({"b", "x"}));
  source.add(s_address("b"), s_addresses({"y", "z"}));
  EXPECT_EQ(s_expand(source, "a"), s_addresses({"x", "y", "z"}));
}

TEST(AdapterExpanderNoQuery, AnAliasThatListsItselfIsDeliveredToAsWell) {
  Cache source(10);
  source.add(s_address("a"), s_addresses({"a", "b"}));
  EXPECT_EQ(s_expand(source, "a"), s_addresses({"a", "b"}));
}

TEST(AdapterExpanderNoQuery, AnAliasThatListsItselfKeepsTheSpellingItWasAskedBy) {
  Cache source(10);
  source.add(s_address("a"), s_addresses({"a"}));
  std::set<EmailAddress> result;
  AdapterExpanderNoQuery(source, result).expand(s_address("A"));
  ASSERT_EQ(result.size(), 1U);
  EXPECT_EQ(result.begin()->local(), "A");
}

TEST(AdapterExpanderNoQuery, ACycleExpandsToNothing) {
  Cache source(10);
  source.add(s_address("a"), s_addresses({"b"}));
  source.add(s_address("b"), s_addresses({"a"}));
  EXPECT_EQ(s_expand(source, "a"), s_addresses({}));
}

TEST(AdapterExpanderNoQuery, AnEntryWithoutMembersContributesNothing) {
  Cache source(10);
  source.add(s_address("a"), s_addresses({"b", "c"}));
  source.add(s_address("b"), {});
  EXPECT_EQ(s_expand(source, "a"), s_addresses({"c"}));
}

TEST(AliasExpander, TheCacheLoaderExpandsTheWholeSourceOnEveryCall) {
  Cache source(10);
  Cache target(10);
  source.add(s_address("a"), s_addresses({"b"}));
  source.add(s_address("b"), s_addresses({"c"}));
  source.add(s_address("e"), {});
  const Cache::Entry unused(s_address("other"), s_addresses({"other"}));
  CacheLoader(source, target)(unused);
  EXPECT_EQ(target.size(), 3U);
  EXPECT_EQ(target.find(s_address("a"))->second, s_addresses({"c"}));
  EXPECT_EQ(target.find(s_address("b"))->second, s_addresses({"c"}));
  EXPECT_EQ(target.find(s_address("e"))->second, s_addresses({}));
}

TEST(AliasExpander, TheCacheLoaderKeepsTheFirstSetOfAKey) {
  Cache source(10);
  Cache target(10);
  source.add(s_address("a"), s_addresses({"b"}));
  target.add(s_address("a"), s_addresses({"first"}));
  std::for_each(source.begin(), source.end(), CacheLoader(source, target));
  EXPECT_EQ(target.find(s_address("a"))->second, s_addresses({"first"}));
}

TEST(AliasExpander, TheCacheLoaderAddsNothingFromAnEmptySource) {
  Cache source(0);
  Cache target(10);
  source.add(s_address("a"), s_addresses({"b"}));
  std::for_each(source.begin(), source.end(), CacheLoader(source, target));
  EXPECT_EQ(target.size(), 0U);
}

// A chain of 20,000 aliases, expanded on a thread with a stack of 64 KiB.
void* s_expandChain(void* argument) {
  auto& got = *static_cast<std::set<EmailAddress>*>(argument);
  constexpr int s_length = 20000;
  Cache source(s_length);
  for (int i = 0; i < s_length; ++i) {
    source.add(s_address("n" + std::to_string(i)), s_addresses({"n" + std::to_string(i + 1)}));
  }
  got = s_expand(source, "n0");
  return nullptr;
}

TEST(AliasExpander, ALongChainDoesNotEndTheThreadsStack) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 65536), 0);
  std::set<EmailAddress> got;
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, &attributes, &s_expandChain, &got), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(got, s_addresses({"n20000"}));
}

}  // namespace
}  // namespace Tessel
