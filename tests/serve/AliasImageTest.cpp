// An alias table in memory: its aliases expand as the library's expander says.
#include "serve/image/AliasImage.h"

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tables/AddressKey.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using Kind = Expansion::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

std::string s_key(const std::string& address) {
  std::string key;
  EXPECT_TRUE(Tool::addressKey(address, key)) << address;
  return key;
}

// With the mail users of `users`, if there are any.
Expansion s_expand(const AliasImage& image, const std::string& address,
                   const ConfigurationPointer& users = nullptr) {
  if (users == nullptr) return image.expand(s_key(address));
  return image.expand(
      s_key(address), Effort::Any,
      [&](const std::string& domain, const auto& take) { return users->listUsers(domain, take); });
}

// The final addresses of what must be found, as texts.
std::vector<std::string> s_addresses(const AliasImage& image, const std::string& address,
                                     const ConfigurationPointer& users = nullptr) {
  const Expansion expansion = s_expand(image, address, users);
  EXPECT_EQ(expansion.kind, Kind::Found) << address;
  std::vector<std::string> texts;
  for (const EmailAddress& member : expansion.addresses) texts.push_back(member.address());
  return texts;
}

std::vector<std::string> s_expanded(const Rows& rows, const std::string& address) {
  return s_addresses(AliasImage(sourceOf(rows)), address);
}

Kind s_kind(const Rows& rows, const std::string& address) {
  return s_expand(AliasImage(sourceOf(rows)), address).kind;
}

TEST(AliasImage, WhatHasExpiredReachesNobodyAndIsNoFinalAddress) {
  const AliasImage image(sourceOf({{"old@d", "old@d,x@d"},
                                   {"a@d", "old@d,b@d,y@d"},
                                   {"b@d", "OLD@d,z@d"},
                                   {"only@d", "old@d"},
                                   {"who@d", "x@d"},
                                   {"asks@d", "who@d"}}));
  const auto expand = [&image](const std::string& key) {
    return image.expand(key, Effort::Any, {}, [](std::string_view alias) {
      if (alias == "who@d") return RuleImage::Presence::Unknown;
      return alias == "old@d" ? RuleImage::Presence::Expired : RuleImage::Presence::There;
    });
  };
  EXPECT_EQ(expand("old@d").kind, Kind::NoAlias);
  EXPECT_EQ(expand("a@d").addresses, EmailAddress::rfc5322ParseSet("y@d,z@d", false, false));
  EXPECT_TRUE(expand("a@d").hasExpired);
  EXPECT_EQ(expand("only@d").kind, Kind::Nobody);
  EXPECT_EQ(expand("who@d").kind, Kind::NoRule);
  EXPECT_EQ(expand("asks@d").kind, Kind::NoRule);
}

TEST(AliasImage, AnAddressWithoutARowIsNoAlias) {
  EXPECT_EQ(s_kind({}, "a@d.example"), Kind::NoAlias);
  EXPECT_EQ(s_kind({{"a@d.example", "b@d.example"}}, "b@d.example"), Kind::NoAlias);
}

TEST(AliasImage, NestedAliasesAreExpandedToTheirEnd) {
  const Rows rows = {{"a@d.example", "b@d.example,x@d.example"},
                     {"b@d.example", "c@d.example,y@d.example"},
                     {"c@d.example", "z@d.example"}};
  EXPECT_THAT(s_expanded(rows, "a@d.example"),
              ElementsAre("x@d.example", "y@d.example", "z@d.example"));
}

TEST(AliasImage, AnAddressThatIsReachedTwiceIsNamedOnce) {
  const Rows rows = {{"a@d.example", "b@d.example,c@d.example"},
                     {"b@d.example", "x@d.example"},
                     {"c@d.example", "X@D.example,b@d.example"}};
  EXPECT_THAT(s_expanded(rows, "a@d.example"), ElementsAre("x@d.example"));
}

TEST(AliasImage, AnAliasThatListsItselfIsDeliveredToAsWell) {
  const Rows rows = {{"a@d.example", "a@d.example,b@d.example"}};
  EXPECT_THAT(s_expanded(rows, "a@d.example"), ElementsAre("a@d.example", "b@d.example"));
}

TEST(AliasImage, ACircleWithAWayOutExpandsToTheWayOut) {
  const Rows rows = {{"a@d.example", "b@d.example,x@d.example"},
                     {"b@d.example", "a@d.example,y@d.example"}};
  EXPECT_THAT(s_expanded(rows, "a@d.example"), ElementsAre("x@d.example", "y@d.example"));
}

TEST(AliasImage, ACircleWithoutAWayOutReachesNobodyAndIsNamed) {
  const AliasImage image(sourceOf({{"in@d.example", "b@d.example"},
                                   {"a@d.example", "b@d.example"},
                                   {"b@d.example", "c@d.example"},
                                   {"c@d.example", "a@d.example"}}));
  for (const char* address : {"in@d.example", "a@d.example", "c@d.example"}) {
    EXPECT_EQ(s_expand(image, address).kind, Kind::Nobody) << address;
  }
  EXPECT_THAT(image.loop(s_key("in@d.example")),
              ElementsAre("b@d.example", "c@d.example", "a@d.example", "b@d.example"));
  EXPECT_THAT(image.loop(s_key("nobody@d.example")), IsEmpty());
}

TEST(AliasImage, WhereThereIsNoCircleNoneIsNamed) {
  const AliasImage image(sourceOf({{"a@d.example", "a@d.example,b@d.example,c@d.example"},
                                   {"b@d.example", "c@d.example"},
                                   {"c@d.example", "x@d.example"}}));
  EXPECT_THAT(image.loop(s_key("a@d.example")), IsEmpty());
}

TEST(AliasImage, AChainOfAsManyAliasesAsThereAreRowsIsExpanded) {
  constexpr int s_length = 100000;
  const auto name = [](int i) { return "a" + std::to_string(i) + "@d.example"; };
  const AliasImage image([&](const TakeRow& take) {
    for (int i = 0; i < s_length; ++i) take(name(i), name(i + 1));
  });
  EXPECT_THAT(s_addresses(image, name(0)), ElementsAre(name(s_length)));
}

TEST(AliasImage, ALongCircleIsFoundInTheTimeOfItsLength) {
  constexpr int s_length = 100000;
  const auto name = [](int i) { return "a" + std::to_string(i) + "@d.example"; };
  const AliasImage image([&](const TakeRow& take) {
    for (int i = 0; i < s_length; ++i) take(name(i), name((i + 1) % s_length));
  });
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(s_expand(image, name(0)).kind, Kind::Nobody);
  const Clock::time_point middle = Clock::now();
  EXPECT_EQ(image.loop(s_key(name(0))).size(), s_length + 1U);
  EXPECT_LT(Clock::now() - middle, 10 * (middle - start));
}

TEST(AliasImage, ARowIsFoundInEverySpellingOfItsName) {
  const AliasImage image(sourceOf({{"Ann@b\u00fccher.example", "x@d.example"},
                                   {"gr\u00fc\u00dfe@d.example", "y@d.example"},
                                   {"\"b c\"@d.example", "z@d.example"},
                                   {" blank@d.example ", "w@d.example"}}));
  for (const char* address : {"ann@b\u00fccher.example", "ANN@xn--bcher-kva.example",
                              "ann@B\u00dcCHER.EXAMPLE", "ann@bu\u0308cher.example"}) {
    EXPECT_THAT(s_addresses(image, address), ElementsAre("x@d.example")) << address;
  }
  for (const char* address :
       {"gr\u00fc\u00dfe@d.example", "gru\u0308\u00dfe@D.example", "GR\u00dc\u1e9eE@d.example"}) {
    EXPECT_THAT(s_addresses(image, address), ElementsAre("y@d.example")) << address;
  }
  EXPECT_THAT(s_addresses(image, "B C@d.example"), ElementsAre("z@d.example"));
  EXPECT_THAT(s_addresses(image, "blank@d.example"), ElementsAre("w@d.example"));
}

TEST(AliasImage, BlanksAroundANameAreNoPartOfIt) {
  const AliasImage image(sourceOf({{" ann@d.example", "x@d.example"}}));
  EXPECT_THAT(s_addresses(image, "ann@d.example"), ElementsAre("x@d.example"));
  // A name with a blank in it is somebody else's.
  EXPECT_EQ(s_expand(image, "\" ann\"@d.example").kind, Kind::NoAlias);
}

TEST(AliasImage, MembersThatSpellAnAliasDifferentlyLeadToIt) {
  const Rows rows = {
      {"a@d.example", "J\u00d6RG@d.example,i@xn--bcher-kva.example,\"plain\"@D.example"},
      {"jo\u0308rg@d.example", "x@d.example"},
      {"i@b\u00fccher.example", "y@d.example"},
      {"plain@d.example", "z@d.example"}};
  EXPECT_THAT(s_expanded(rows, "a@d.example"),
              ElementsAre("x@d.example", "y@d.example", "z@d.example"));
}

TEST(AliasImage, ACircleOfDifferentSpellingsEndsToo) {
  const Rows rows = {{"\u00f6@d.example", "b@d.example"},
                     {"b@d.example", "\u00d6@d.example"},
                     {"\u00fc@d.example", "u\u0308@d.example"}};
  EXPECT_EQ(s_kind(rows, "b@d.example"), Kind::Nobody);
  // It lists itself, in another spelling.
  EXPECT_THAT(s_expanded(rows, "\u00fc@d.example"), ElementsAre("u\u0308@d.example"));
}

TEST(AliasImage, OfTwoRowsOfOneAddressTheFirstAnswersAndTheOtherIsCounted) {
  const AliasImage image(sourceOf(
      {{"\u00f6@d.example", "first@d.example"}, {"o\u0308@d.example", "second@d.example"}}));
  EXPECT_THAT(s_addresses(image, "\u00d6@d.example"), ElementsAre("first@d.example"));
  EXPECT_EQ(image.rows().size(), 1U);
  EXPECT_EQ(image.brokenRows().count(), 1U);
  EXPECT_EQ(image.brokenRows().first().at(0).name, "o\u0308@d.example");
  EXPECT_EQ(image.brokenRows().first().at(0).why, "another row is of the same address");
  EXPECT_FALSE(image.brokenRows().hasKeys());
}

TEST(AliasImage, RowsThatCannotBeReadAreLeftOutAndTheirAddressesAreBroken) {
  const AliasImage image(sourceOf({{"good@d.example", "x@d.example"},
                                   {"members@d.example", "x@d.example, no address"},
                                   {"none@d.example", ""},
                                   {"blank@d.example", "  , "},
                                   {"two words@d.example", "x@d.example"},
                                   {"a..b@d.example", "x@d.example"},
                                   {"no address", "x@d.example"},
                                   {"", "x@d.example"},
                                   {"\xff@d.example", "x@d.example"},
                                   {"a@\u3002", "x@d.example"}}));
  EXPECT_EQ(image.rows().size(), 1U);
  EXPECT_EQ(image.brokenRows().count(), 9U);
  EXPECT_EQ(image.brokenRows().first().at(1).why, "the members are empty");
  EXPECT_EQ(image.brokenRows().first().at(6).why, "the alias is empty");
  EXPECT_EQ(image.brokenRows().first().at(8).why, "bad alias: nobody can ask for it");
  for (const char* address : {"members@d.example", "NONE@d.example", "blank@d.example",
                              "two words@d.example", "a..b@d.example"}) {
    EXPECT_EQ(s_expand(image, address).kind, Kind::Broken) << address;
  }
  EXPECT_THAT(s_addresses(image, "good@d.example"), ElementsAre("x@d.example"));
}

TEST(AliasImage, AnAliasThatLeadsToABrokenOneIsBroken) {
  const AliasImage image(sourceOf({{"a@d.example", "b@d.example,x@d.example"},
                                   {"b@d.example", "C@D.example"},
                                   {"c@d.example", "no address"},
                                   {"other@d.example", "x@d.example"}}));
  EXPECT_EQ(s_expand(image, "a@d.example").kind, Kind::Broken);
  EXPECT_EQ(s_expand(image, "b@d.example").kind, Kind::Broken);
  EXPECT_THAT(s_addresses(image, "other@d.example"), ElementsAre("x@d.example"));
}

TEST(AliasImage, ARowThatCanBeReadAnswersForABrokenOneOfItsAddress) {
  const AliasImage image(sourceOf({{"\u00f6@d.example", "no address"},
                                   {"o\u0308@d.example", "x@d.example"},
                                   {"a@d.example", "\u00f6@d.example"}}));
  EXPECT_THAT(s_addresses(image, "\u00f6@d.example"), ElementsAre("x@d.example"));
  EXPECT_THAT(s_addresses(image, "a@d.example"), ElementsAre("x@d.example"));
}

TEST(AliasImage, WhatTheSourceThrowsPasses) {
  const RowSource failing = [](const TakeRow& take) {
    take("a@d.example", "b@d.example");
    throw std::runtime_error("the database is gone");
  };
  EXPECT_THROW(AliasImage image(failing), std::runtime_error);
}

TEST(AliasImage, TheMarkerOfItsDomainStandsForTheUserMailboxes) {
  const ConfigurationPointer served = ServedDomains().image();
  const AliasImage image(sourceOf({{"all@d.example", "AllUsers_D.example"},
                                   {"chain@d.example", "all@d.example"},
                                   {"all@b\u00fccher.example", "x@d.example"}}));
  EXPECT_THAT(s_addresses(image, "all@d.example", served),
              ElementsAre("Alice@d.example", "bob@d.example"));
  EXPECT_THAT(s_addresses(image, "chain@d.example", served),
              ElementsAre("Alice@d.example", "bob@d.example"));
  EXPECT_TRUE(s_expand(image, "all@d.example", served).dependsOnUsers);
  EXPECT_FALSE(s_expand(image, "all@b\u00fccher.example", served).dependsOnUsers);
}

TEST(AliasImage, ADomainWithoutUserMailboxesReachesNobody) {
  const ConfigurationPointer served = ServedDomains().image();
  const AliasImage image(sourceOf({{"all@empty.example", "allusers_empty.example"}}));
  const Expansion expansion = s_expand(image, "all@empty.example", served);
  EXPECT_EQ(expansion.kind, Kind::Nobody);
  EXPECT_TRUE(expansion.dependsOnUsers);
  EXPECT_THAT(image.loop(s_key("all@empty.example")), IsEmpty());
}

TEST(AliasImage, AMarkerThatStaysMeansThatTheUsersCannotBeTold) {
  const Rows rows = {{"other@empty.example", "allusers_d.example"},
                     {"unknown@unknown.example", "allusers_unknown.example"},
                     {"mixed@d.example", "allusers_d.example,x@d.example"},
                     {"nested@d.example", "mixed@d.example,y@d.example"},
                     {"all@d.example", "allusers_d.example"}};
  const AliasImage image(sourceOf(rows));
  const ConfigurationPointer served = ServedDomains().image();
  for (const char* address :
       {"other@empty.example", "unknown@unknown.example", "mixed@d.example", "nested@d.example"}) {
    EXPECT_EQ(s_expand(image, address, served).kind, Kind::NoUsers) << address;
  }
  EXPECT_EQ(s_expand(image, "all@d.example", served).kind, Kind::Found);
  EXPECT_EQ(s_expand(image, "all@d.example").kind, Kind::NoUsers);
}

TEST(AliasImage, MembersCannotBringControlCharactersIn) {
  const AliasImage image(sourceOf({{"a@d.example", "\"x\\\ny\"@d.example"},
                                   {"b@d.example", "\"x\ny\"@d.example"},
                                   {"c@d.example", "x@d.example\r\n y@d.example"},
                                   {"d@d.example", "\"x\\\x01y\"@d.example"}}));
  for (const char* address : {"a@d.example", "b@d.example", "c@d.example", "d@d.example"}) {
    for (const EmailAddress& member : s_expand(image, address).addresses) {
      for (const char c : member.address()) EXPECT_GE(static_cast<unsigned char>(c), 0x20);
    }
  }
}

TEST(AliasImage, ThreadsExpandAtTheSameTime) {
  Rows rows;
  const auto name = [](int i) { return "a" + std::to_string(i) + "@d.example"; };
  for (int i = 0; i < 500; ++i) {
    rows.emplace_back(name(i), name(i + 1) + ",x" + std::to_string(i) + "@d.example");
  }
  const AliasImage image(sourceOf(rows));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < 500; i += 20) {
        const std::size_t expected = static_cast<std::size_t>(500 - i) + 1;
        if (image.expand(name(i)).addresses.size() != expected) ++wrong;
        if (!image.loop(name(i)).empty()) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Tessel::Serve
