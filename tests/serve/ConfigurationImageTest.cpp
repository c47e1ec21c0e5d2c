// The configuration in memory: it answers as the configuration itself does.
#include "serve/image/ConfigurationImage.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using testing::ElementsAre;
using testing::IsEmpty;

// The user mailboxes of `domain`; "unknown" when there is no such domain.
std::vector<std::string> s_users(const ConfigurationImage& image, std::string_view domain) {
  std::vector<std::string> names;
  const bool isKnown =
      image.listUsers(domain, [&](std::string_view name) { names.emplace_back(name); });
  if (!isKnown) names.emplace_back("unknown");
  return names;
}

TEST(ConfigurationImage, HasTheUsersThatAreNotDisabled) {
  const ConfigurationPointer image = ServedDomains().image();
  EXPECT_EQ(image->users(), 5U);
  for (const char* address : {"bob@d.example", "BOB@D.Example", "alice@d.example",
                              "Alice@d.example", "room@d.example", "ann@xn--bcher-kva.example"}) {
    EXPECT_TRUE(image->hasUser(address)) << address;
  }
  for (const char* address :
       {"gone@d.example", "nobody@d.example", "bob@empty.example", "bob@d.exampl", "ob@d.example",
        "bob", "@d.example", "d.example", ""}) {
    EXPECT_FALSE(image->hasUser(address)) << address;
  }
  EXPECT_FALSE(image->hasUser(std::string_view("bob\0@d.example", 14)));
}

TEST(ConfigurationImage, HasTheDomains) {
  const ConfigurationPointer image = ServedDomains().image();
  EXPECT_EQ(image->domains(), 3U);
  for (const char* domain : {"d.example", "EMPTY.example", "xn--bcher-kva.example"}) {
    EXPECT_TRUE(image->hasDomain(domain)) << domain;
  }
  for (const char* domain : {"example", "dd.example", "bob@d.example", ""}) {
    EXPECT_FALSE(image->hasDomain(domain)) << domain;
  }
}

TEST(ConfigurationImage, ListsTheUserMailboxesOfADomainInTheirSpelling) {
  const ConfigurationPointer image = ServedDomains().image();
  EXPECT_THAT(s_users(*image, "d.example"), ElementsAre("Alice", "bob"));
  EXPECT_THAT(s_users(*image, "D.EXAMPLE"), ElementsAre("Alice", "bob"));
  EXPECT_THAT(s_users(*image, "xn--bcher-kva.example"), ElementsAre("ann"));
  EXPECT_THAT(s_users(*image, "empty.example"), IsEmpty());
  EXPECT_THAT(s_users(*image, "unknown.example"), ElementsAre("unknown"));
}

TEST(ConfigurationImage, SpellingsOfADomainAreOneWithTheUsersOfAll) {
  using std::string_view_literals::operator""sv;
  // "u" with diaeresis in one character in small and in capital letters, in two, and in Punycode.
  const ConfigurationImage image(
      "db\u00fcro.example\0mann\0xbob\0xcleo\0dd.example\0meve\0dB\u00dcRO.example\0mAnn\0mBob\0"
      "dbu\u0308ro.example\0mdave\0dxn--bro-hoa.example\0xdave\0mJ\u00dcRGEN\0"sv);
  EXPECT_EQ(image.domains(), 2U);
  EXPECT_TRUE(image.hasDomain("xn--bro-hoa.example"));
  for (const char* key : {"ann@xn--bro-hoa.example", "bob@xn--bro-hoa.example",
                          "dave@xn--bro-hoa.example", "j\u00fcrgen@xn--bro-hoa.example"}) {
    EXPECT_TRUE(image.hasUser(key)) << key;
  }
  EXPECT_FALSE(image.hasUser("cleo@xn--bro-hoa.example"));
  EXPECT_FALSE(image.hasUser("eve@xn--bro-hoa.example"));
  for (const char* domain : {"b\u00fcro.example", "XN--BRO-HOA.example", "BU\u0308RO.example"}) {
    EXPECT_THAT(s_users(image, domain), ElementsAre("ann", "bob", "dave", "J\u00dcRGEN")) << domain;
  }
  EXPECT_THAT(s_users(image, "d.example"), ElementsAre("eve"));
}

TEST(ConfigurationImage, NamesThatNobodyCanAskForAreLeftOut) {
  using std::string_view_literals::operator""sv;
  const ConfigurationImage image("d..\0mann\0dd.example\0m\xff\0mbob\0"sv);
  EXPECT_EQ(image.domains(), 1U);
  EXPECT_THAT(s_users(image, "d.example"), ElementsAre("bob"));
}

TEST(ConfigurationImage, AnEmptyCopyHasNothing) {
  const ConfigurationImage image("");
  EXPECT_FALSE(image.hasDomain("d.example"));
  EXPECT_EQ(image.users(), 0U);
}

TEST(ConfigurationImage, ACopyThatIsMalformedIsRefused) {
  using std::string_view_literals::operator""sv;
  for (const std::string_view copy : {"dd.example"sv, "d\0"sv, "\0"sv, "zd.example\0"sv, "mbob\0"sv,
                                      "dd.example\0mbob"sv, "dd.example\0zbob\0"sv}) {
    EXPECT_THAT(
        [copy] { ConfigurationImage image(copy); },
        testing::ThrowsMessage<std::runtime_error>("the copy of the configuration is malformed"))
        << copy;
  }
  EXPECT_TRUE(ConfigurationImage("dd.example\0mbob\0"sv).hasUser("bob@d.example"));
}

TEST(ConfigurationImage, ThereIsNoCopyWithoutAConfiguration) {
  const ConfigurationDirectory none("/nonexistent/configuration");
  EXPECT_THROW(copyConfiguration(), std::runtime_error);
}

TEST(ConfigurationImage, ACopyOfManyUsersSaysThatItGoesOn) {
  const Testing::ScratchFile scratch;
  const ConfigurationDirectory directory(scratch.directory());
  CMF::Writer writer;
  writer.addDomain("d.example");
  for (int i = 0; i < 20000; ++i) {
    writer.addUser("d.example", "u" + std::to_string(100000 + i), CMF::MailUserMailbox);
  }
  writer.commit();
  int signs = 0;
  const ConfigurationImage image(copyConfiguration([&] { ++signs; }));
  EXPECT_EQ(signs, 2);
  EXPECT_EQ(image.users(), 20000U);
}

TEST(Configuration, IsUsedUntilItIsTooOld) {
  Settings settings;
  settings.stale = hours(1);
  const Clock::time_point now = Clock::now();
  Configuration configuration;
  EXPECT_FALSE(configuration.age(now));
  EXPECT_EQ(configuration.use(settings, now), nullptr);
  const auto image = std::make_shared<const ConfigurationImage>("");
  configuration.publish(image, now - minutes(59));
  EXPECT_EQ(configuration.use(settings, now), image);
  EXPECT_EQ(configuration.age(now), minutes(59));
  EXPECT_EQ(configuration.use(settings, now + minutes(2)), nullptr);
  EXPECT_EQ(configuration.image(), image);
  configuration.confirm(now);
  EXPECT_EQ(configuration.use(settings, now + minutes(2)), image);
}

TEST(Configuration, IsNeededOnceThereWasOneOrSomebodyAsked) {
  const Settings settings;
  Configuration asked;
  EXPECT_FALSE(asked.isNeeded());
  EXPECT_EQ(asked.use(settings, Clock::now()), nullptr);
  EXPECT_TRUE(asked.isNeeded());
  Configuration read;
  read.publish(std::make_shared<const ConfigurationImage>(""), Clock::now());
  EXPECT_TRUE(read.isNeeded());
}

}  // namespace
}  // namespace Tessel::Serve
