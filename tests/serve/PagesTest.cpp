// Pages of long answers: how they are cut, that they are found again, and when they go.
#include "serve/image/Pages.h"

#include <chrono>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serve/image/AddressKey.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using testing::SizeIs;

const Clock::time_point s_start = Clock::now();

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
    const std::vector<std::string> inner = s_resolve(pages, *page);
    all.insert(all.end(), inner.begin(), inner.end());
  }
  return all;
}

TEST(Pages, WhatFitsIsCountedInAddressesAndInBytes) {
  const Pages pages(3, 17, 0);
  EXPECT_TRUE(pages.fit({}));
  EXPECT_TRUE(pages.fit({"a@d", "b@d", "c@d"}));
  EXPECT_FALSE(pages.fit({"a@d", "b@d", "c@d", "d@d"}));
  EXPECT_TRUE(pages.fit({"12345678", "12345678"}));
  EXPECT_FALSE(pages.fit({"12345678", "123456789"}));
}

TEST(Pages, EachPageAndTheListOfThemFit) {
  for (const std::size_t count : {4U, 5U, 9U, 10U, 27U, 28U, 100U}) {
    Pages pages(3, 100000, 0);
    const std::vector<std::string> top = pages.divide("list@d", s_list(count), s_start);
    EXPECT_LE(top.size(), 3U);
    EXPECT_EQ(s_resolve(pages, top), s_list(count)) << count;
  }
}

TEST(Pages, PagesHaveRoomForAnExtensionOfEachAddress) {
  Pages pages(1000, 1000, 32);
  const std::vector<std::string> top = pages.divide("list@d", s_list(200), s_start);
  EXPECT_EQ(s_resolve(pages, top), s_list(200));
  for (const std::string& name : top) {
    std::vector<std::string> page = pages.find(name, s_start).value_or(std::vector<std::string>());
    EXPECT_FALSE(page.empty());
    for (std::string& address : page) address += std::string(32, '+');
    EXPECT_TRUE(pages.fit(page));
  }
}

TEST(Pages, TheAddressOfAPageIsOneOfTheAliasesDomain) {
  Pages pages(2, 1000, 0);
  std::string key;
  ASSERT_TRUE(addressKey("list@B\u00fccher.example", key));
  for (const std::string& name : pages.divide(key, s_list(4), s_start)) {
    EXPECT_THAT(name, testing::MatchesRegex("tslpage[0-9a-f]{24}x[01]@xn--bcher-kva\\.example"));
    std::string pageKey;
    EXPECT_TRUE(addressKey(name, pageKey));
    EXPECT_EQ(pageKey, name);
    EXPECT_TRUE(Pages::isPage(pageKey));
  }
}

TEST(Pages, TheSameAddressesHaveTheSamePagesAndOthersHaveOthers) {
  Pages pages(2, 1000, 0);
  const auto first = pages.divide("list@d", s_list(4), s_start);
  EXPECT_EQ(pages.divide("list@d", s_list(4), s_start), first);
  const auto other = pages.divide("list@d", s_list(4, "v"), s_start);
  EXPECT_NE(other, first);
  EXPECT_NE(pages.divide("list2@d", s_list(4), s_start), first);
  EXPECT_EQ(s_resolve(pages, first), s_list(4));
  EXPECT_EQ(s_resolve(pages, other), s_list(4, "v"));
}

TEST(Pages, NobodyGuessesOne) {
  Pages pages(2, 1000, 0);
  std::set<std::string> tokens;
  for (int i = 0; i < 100; ++i) {
    const auto top = pages.divide("list" + std::to_string(i) + "@d", s_list(4), s_start);
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
  Pages pages(2, 1000, 0);
  EXPECT_FALSE(pages.find("tslpage0123456789abcdef01234567x0@d", s_start));
  EXPECT_FALSE(pages.find("list@d", s_start));
  const auto top = pages.divide("list@d", s_list(4), s_start);
  EXPECT_TRUE(pages.find(top.at(1), s_start));
  EXPECT_FALSE(pages.find(top.at(1).substr(0, 32) + "2@d", s_start));
}

TEST(Pages, AnHourWithoutARequestEndsAPage) {
  Pages pages(2, 1000, 0);
  const auto asked = pages.divide("asked@d", s_list(4), s_start);
  const auto unasked = pages.divide("unasked@d", s_list(4), s_start);
  EXPECT_TRUE(pages.find(asked.at(0), s_start + minutes(50)));
  pages.divide("other@d", s_list(4), s_start + hours(1));
  EXPECT_TRUE(pages.find(asked.at(0), s_start + hours(1)));
  EXPECT_FALSE(pages.find(unasked.at(0), s_start + hours(1)));
  // Its alias gets new ones.
  EXPECT_NE(pages.divide("unasked@d", s_list(4), s_start + hours(1)), unasked);
  EXPECT_EQ(pages.divide("asked@d", s_list(4), s_start + hours(1)), asked);
}

TEST(Pages, TheOldestGoWhenThereAreTooMany) {
  Pages pages(10, 100000000, 0);
  // Each of these lists has 50 MB of the 256 MB that are kept.
  const std::vector<std::string> addresses(20, std::string(2500000, 'a'));
  std::vector<std::vector<std::string>> tops;
  for (int i = 0; i < 7; ++i) {
    tops.push_back(
        pages.divide("list" + std::to_string(i) + "@d", addresses, s_start + minutes(i)));
  }
  EXPECT_FALSE(pages.find(tops.at(0).at(0), s_start));
  EXPECT_FALSE(pages.find(tops.at(1).at(0), s_start));
  EXPECT_TRUE(pages.find(tops.at(2).at(0), s_start));
  EXPECT_TRUE(pages.find(tops.at(6).at(0), s_start));
}

TEST(Pages, ADomainThatLeavesNoRoomForThemIsRefused) {
  Pages pages(2, 1000, 0);
  EXPECT_THROW(pages.divide("list@" + std::string(240, 'd'), s_list(4), s_start),
               std::length_error);
  EXPECT_THAT(pages.divide("list@" + std::string(200, 'd'), s_list(4), s_start), SizeIs(2));
}

TEST(Pages, AnAliasThatNamesItselfStandsBesideItsPages) {
  for (const std::size_t count : {3U, 4U, 9U, 10U, 27U}) {
    Pages pages(3, 100000, 0);
    std::vector<std::string> addresses = s_list(count);
    addresses.insert(addresses.begin() + 1, "List@d");
    const std::vector<std::string> top = pages.divide("list@d", addresses, s_start);
    EXPECT_TRUE(pages.fit(top)) << count;
    ASSERT_FALSE(top.empty());
    EXPECT_EQ(top.front(), "List@d") << count;
    std::swap(addresses.at(0), addresses.at(1));
    EXPECT_EQ(s_resolve(pages, top), addresses) << count;
  }
}

TEST(Pages, AnAliasThatNamesItselfInManySpellingsStandsOnceBesideItsPages) {
  Pages pages(2, 1000, 0);
  std::vector<std::string> addresses = {"\u00fcber@d", "u\u0308ber@d", "\"\u00fcber\"@d"};
  for (const std::string& address : s_list(4)) addresses.push_back(address);
  const std::vector<std::string> top = pages.divide("\u00fcber@d", addresses, s_start);
  ASSERT_THAT(top, SizeIs(2));
  EXPECT_EQ(top.front(), addresses.front());
  EXPECT_EQ(s_resolve(pages, {top.back()}), s_list(4));
}

TEST(Pages, AnAliasThatComesToNameItselfGetsAnotherAnswer) {
  Pages pages(2, 1000, 0);
  std::vector<std::string> addresses = s_list(4);
  EXPECT_NE(pages.divide("list@d", addresses, s_start).front(), "list@d");
  addresses.emplace_back("list@d");
  EXPECT_EQ(pages.divide("list@d", addresses, s_start).front(), "list@d");
  addresses.pop_back();
  EXPECT_NE(pages.divide("list@d", addresses, s_start).front(), "list@d");
}

}  // namespace
}  // namespace Tessel::Serve
