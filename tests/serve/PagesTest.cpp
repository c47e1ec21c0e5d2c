// Pages of long answers: how they are cut, that they are found again, and when they go.
#include "serve/image/Pages.h"

#include <chrono>
#include <cstdint>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tables/AddressKey.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using testing::SizeIs;

const Clock::time_point s_start = Clock::now();

// What pages take their memory from, where that is not what is tested.
MemoryBudget s_budget(1U << 30U);

constexpr std::uint64_t s_table = 1;

std::vector<std::string> s_split(const std::string& text) {
  std::vector<std::string> addresses;
  std::istringstream stream(text);
  for (std::string address; std::getline(stream, address, ',');) addresses.push_back(address);
  return addresses;
}

// The addresses that the alias with `key` gets instead of `addresses`.
std::vector<std::string> s_divide(Pages& pages, const std::string& key,
                                  const std::vector<std::string>& addresses,
                                  Clock::time_point now = s_start) {
  return s_split(pages.divide(s_table, key, addresses, now));
}

std::vector<std::string> s_list(std::size_t count, const std::string& start = "u") {
  std::vector<std::string> addresses;
  for (std::size_t i = 0; i < count; ++i) {
    addresses.push_back(start + std::to_string(1000 + i) + "@d");
  }
  return addresses;
}

// All that is on the pages named by `addresses`, in order; other addresses stay as they are.
std::vector<std::string> s_resolve(Pages& pages, const std::vector<std::string>& addresses) {
  std::vector<std::string> all;
  for (const std::string& address : addresses) {
    if (!Pages::isPage(address)) {
      all.push_back(address);
      continue;
    }
    const auto page = pages.find(address, s_start);
    EXPECT_TRUE(page) << address;
    if (!page) continue;
    const std::vector<std::string> inner = s_resolve(pages, s_split(page->addresses));
    all.insert(all.end(), inner.begin(), inner.end());
  }
  return all;
}

TEST(Pages, WhatFitsIsCountedInAddressesAndInBytes) {
  const Pages pages({3, 17, 0}, s_budget);
  EXPECT_TRUE(pages.fit({}));
  EXPECT_TRUE(pages.fit({"a@d", "b@d", "c@d"}));
  EXPECT_FALSE(pages.fit({"a@d", "b@d", "c@d", "d@d"}));
  EXPECT_TRUE(pages.fit({"12345678", "12345678"}));
  EXPECT_FALSE(pages.fit({"12345678", "123456789"}));
}

TEST(Pages, EachPageAndTheListOfThemFit) {
  for (const std::size_t count : {4U, 5U, 9U, 10U, 27U, 28U, 100U}) {
    Pages pages({3, 100000, 0}, s_budget);
    const std::vector<std::string> top = s_divide(pages, "list@d", s_list(count));
    EXPECT_LE(top.size(), 3U);
    EXPECT_EQ(s_resolve(pages, top), s_list(count)) << count;
  }
}

TEST(Pages, APageIsFilledToTheLastByte) {
  // 13 addresses of 7 bytes have 103 bytes with their commas.
  for (const auto& [most, count] : {std::pair(103U, 13U), std::pair(102U, 12U)}) {
    Pages pages({1000, most, 0}, s_budget);
    const std::vector<std::string> top = s_divide(pages, "list@d", s_list(2 * count));
    EXPECT_THAT(top, SizeIs(2));
    EXPECT_EQ(s_resolve(pages, top), s_list(2 * count));
    for (const std::string& name : top) EXPECT_THAT(s_resolve(pages, {name}), SizeIs(count));
  }
}

TEST(Pages, PagesHaveRoomForAnExtensionOfEachAddress) {
  Pages pages({1000, 1000, 32}, s_budget);
  const std::vector<std::string> top = s_divide(pages, "list@d", s_list(200));
  EXPECT_EQ(s_resolve(pages, top), s_list(200));
  for (const std::string& name : top) {
    std::vector<std::string> page =
        s_split(pages.find(name, s_start).value_or(Pages::Page()).addresses);
    EXPECT_FALSE(page.empty());
    for (std::string& address : page) address += std::string(32, '+');
    EXPECT_TRUE(pages.fit(page));
  }
}

TEST(Pages, TheAddressOfAPageIsOneOfTheAliasesDomain) {
  Pages pages({2, 1000, 0}, s_budget);
  std::string key;
  ASSERT_TRUE(Tool::addressKey("list@B\u00fccher.example", key));
  for (const std::string& name : s_divide(pages, key, s_list(4))) {
    EXPECT_THAT(name, testing::MatchesRegex("tslpage[0-9a-f]{24}x[01]@xn--bcher-kva\\.example"));
    std::string pageKey;
    EXPECT_TRUE(Tool::addressKey(name, pageKey));
    EXPECT_EQ(pageKey, name);
    EXPECT_TRUE(Pages::isPage(pageKey));
  }
}

TEST(Pages, TheSameAddressesHaveTheSamePagesAndOthersHaveOthers) {
  Pages pages({2, 1000, 0}, s_budget);
  const auto first = s_divide(pages, "list@d", s_list(4));
  EXPECT_EQ(s_divide(pages, "list@d", s_list(4)), first);
  const auto other = s_divide(pages, "list@d", s_list(4, "v"));
  EXPECT_NE(other, first);
  EXPECT_NE(s_divide(pages, "list2@d", s_list(4)), first);
  EXPECT_EQ(s_resolve(pages, first), s_list(4));
  EXPECT_EQ(s_resolve(pages, other), s_list(4, "v"));
}

TEST(Pages, NobodyGuessesOne) {
  Pages pages({2, 1000, 0}, s_budget);
  std::set<std::string> tokens;
  for (int i = 0; i < 100; ++i) {
    const auto top = s_divide(pages, "list" + std::to_string(i) + "@d", s_list(4));
    tokens.insert(top.at(0).substr(7, 24));
  }
  EXPECT_THAT(tokens, SizeIs(100));
}

TEST(Pages, OtherNamesAreNoPages) {
  const std::string token = "0123456789abcdef01234567";
  EXPECT_TRUE(Pages::isPage("tslpage" + token + "x0@d"));
  EXPECT_TRUE(Pages::isPage("tslpage" + token + "x12@other.example"));
  for (const std::string& name :
       {std::string(), std::string("tslpage"), "tslpage" + token + "x0", "tslpage" + token + "x@d",
        "tslpage" + token + "y0@d", "tslpage" + token + "0@d", "tslpage" + token + "xa@d",
        "tslpage" + token + "x0a@d", "tslpage" + token + "x-1@d", "tslpage" + token + "x 1@d",
        "tslpage" + token.substr(1) + "gx0@d", "tslpage" + token.substr(1) + "x0@d",
        "xtslpage" + token + "x0@d", "tslpage" + token + "x99999999999999999999@d"}) {
    EXPECT_FALSE(Pages::isPage(name)) << name;
  }
}

TEST(Pages, APageThatIsNotThereIsNotFound) {
  Pages pages({2, 1000, 0}, s_budget);
  EXPECT_FALSE(pages.find("tslpage0123456789abcdef01234567x0@d", s_start));
  EXPECT_FALSE(pages.find("list@d", s_start));
  const auto top = s_divide(pages, "list@d", s_list(4));
  EXPECT_TRUE(pages.find(top.at(1), s_start));
  EXPECT_FALSE(pages.find(top.at(1).substr(0, 32) + "2@d", s_start));
}

TEST(Pages, AnHourWithoutARequestEndsAPage) {
  Pages pages({2, 1000, 0}, s_budget);
  const auto asked = s_divide(pages, "asked@d", s_list(4));
  const auto unasked = s_divide(pages, "unasked@d", s_list(4));
  EXPECT_TRUE(pages.find(asked.at(0), s_start + minutes(50)));
  pages.sweep(s_start + hours(1));
  EXPECT_TRUE(pages.find(asked.at(0), s_start + hours(1)));
  EXPECT_FALSE(pages.find(unasked.at(0), s_start + hours(1)));
  // Its alias gets new ones.
  EXPECT_NE(s_divide(pages, "unasked@d", s_list(4), s_start + hours(1)), unasked);
  EXPECT_EQ(s_divide(pages, "asked@d", s_list(4), s_start + hours(1)), asked);
}

TEST(Pages, ThoseOfTheNewestListStayTheSameWhenOlderOnesGo) {
  Pages pages({2, 1000, 0}, s_budget);
  const auto old = s_divide(pages, "list@d", s_list(4));
  const auto newest = s_divide(pages, "list@d", s_list(4, "v"), s_start + minutes(30));
  pages.sweep(s_start + hours(1));
  EXPECT_FALSE(pages.find(old.at(0), s_start + hours(1)));
  EXPECT_EQ(s_divide(pages, "list@d", s_list(4, "v"), s_start + hours(1)), newest);
}

TEST(Pages, TheOldestGoWhenThereIsNoMoreMemory) {
  MemoryBudget budget(256000);
  Pages pages({10, 100000, 0}, budget);
  // Each of these lists has 50 KB.
  const std::vector<std::string> addresses(20, std::string(2500, 'a'));
  std::vector<std::vector<std::string>> tops;
  for (int i = 0; i < 7; ++i) {
    const std::string key = "list" + std::to_string(i) + "@d";
    tops.push_back(s_divide(pages, key, addresses, s_start + minutes(i)));
    EXPECT_LE(budget.used(), budget.most());
  }
  EXPECT_FALSE(pages.find(tops.at(0).at(0), s_start));
  EXPECT_FALSE(pages.find(tops.at(1).at(0), s_start));
  EXPECT_TRUE(pages.find(tops.at(2).at(0), s_start));
  EXPECT_TRUE(pages.find(tops.at(6).at(0), s_start));
}

TEST(Pages, AListThatNeedsMoreMemoryThanThereIsIsRefused) {
  MemoryBudget budget(40000);
  Pages pages({10, 100000, 0}, budget);
  EXPECT_THROW(s_divide(pages, "a@d", std::vector<std::string>(20, std::string(2500, 'a'))),
               std::bad_alloc);
  EXPECT_EQ(budget.used(), 0U);
}

TEST(Pages, TheirTextsTakeNoMoreMemoryThanTheyNeed) {
  MemoryBudget budget(1000000);
  Pages pages({10000, 100000, 0}, budget);
  // Two pages of 100,000 bytes.
  s_divide(pages, "a@d", s_list(20, std::string(9990, 'a')));
  EXPECT_GT(budget.used(), 199000U);
  EXPECT_LT(budget.used(), 202000U);
}

TEST(Pages, TheMemoryOfPagesThatAreGoneIsGivenBack) {
  MemoryBudget budget(256000);
  {
    Pages pages({10, 100000, 0}, budget);
    s_divide(pages, "a@d", s_list(1000));
    EXPECT_GT(budget.used(), 10000U);
    pages.sweep(s_start + minutes(59));
    EXPECT_GT(budget.used(), 10000U);
    pages.sweep(s_start + hours(1));
    EXPECT_EQ(budget.used(), 0U);
    s_divide(pages, "a@d", s_list(1000));
  }
  EXPECT_EQ(budget.used(), 0U);
}

TEST(Pages, AnAnswerIsWholeAsLongAsItsPagesAreThere) {
  Pages pages({2, 1000, 0}, s_budget);
  const std::string top = pages.divide(s_table, "list@d", s_list(4), s_start);
  EXPECT_TRUE(pages.isWhole("a@d,b@d", s_start));
  EXPECT_TRUE(pages.isWhole("", s_start));
  EXPECT_TRUE(pages.isWhole(top, s_start + minutes(40)));
  pages.sweep(s_start + minutes(90));
  EXPECT_TRUE(pages.isWhole(top, s_start + minutes(40)));
  pages.sweep(s_start + hours(2));
  EXPECT_FALSE(pages.isWhole(top, s_start));
}

TEST(Pages, ADomainThatLeavesNoRoomForThemIsRefused) {
  Pages pages({2, 1000, 0}, s_budget);
  EXPECT_THAT(
      [&] { s_divide(pages, "list@" + std::string(240, 'd'), s_list(4)); },
      testing::ThrowsMessage<std::length_error>("the name of the domain is too long for pages"));
  EXPECT_THAT(s_divide(pages, "list@" + std::string(200, 'd'), s_list(4)), SizeIs(2));
}

TEST(Pages, AnAliasThatNamesItselfStandsBesideItsPages) {
  for (const std::size_t count : {3U, 4U, 9U, 10U, 27U}) {
    Pages pages({3, 100000, 0}, s_budget);
    std::vector<std::string> addresses = s_list(count);
    addresses.insert(addresses.begin() + 1, "List@d");
    const std::vector<std::string> top = s_divide(pages, "list@d", addresses);
    EXPECT_TRUE(pages.fit(top)) << count;
    ASSERT_FALSE(top.empty());
    EXPECT_EQ(top.front(), "List@d") << count;
    std::swap(addresses.at(0), addresses.at(1));
    EXPECT_EQ(s_resolve(pages, top), addresses) << count;
  }
}

TEST(Pages, AnAliasThatNamesItselfInManySpellingsStandsOnceBesideItsPages) {
  Pages pages({2, 1000, 0}, s_budget);
  std::vector<std::string> addresses = {"\u00fcber@d", "u\u0308ber@d", "\"\u00fcber\"@d"};
  for (const std::string& address : s_list(4)) addresses.push_back(address);
  const std::vector<std::string> top = s_divide(pages, "\u00fcber@d", addresses);
  ASSERT_THAT(top, SizeIs(2));
  EXPECT_EQ(top.front(), addresses.front());
  EXPECT_EQ(s_resolve(pages, {top.back()}), s_list(4));
}

TEST(Pages, AnAliasThatComesToNameItselfGetsAnotherAnswer) {
  Pages pages({2, 1000, 0}, s_budget);
  std::vector<std::string> addresses = s_list(4);
  EXPECT_NE(s_divide(pages, "list@d", addresses).front(), "list@d");
  addresses.emplace_back("list@d");
  EXPECT_EQ(s_divide(pages, "list@d", addresses).front(), "list@d");
  addresses.pop_back();
  EXPECT_NE(s_divide(pages, "list@d", addresses).front(), "list@d");
}

}  // namespace
}  // namespace Tessel::Serve
