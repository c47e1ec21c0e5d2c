// HostList: how a list of hosts is read, and in which order its hosts are tried.
#include "database/HostList.h"

#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel::Database {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAre;

std::vector<std::string> s_hostTexts(const std::string& value) {
  std::vector<std::string> texts;
  for (const Host& host : hostsOf({{"host", value, "file", 1}})) texts.push_back(host.text());
  return texts;
}

TEST(HostList, AListHasNamesAddressesAndPorts) {
  EXPECT_THAT(s_hostTexts("db.example"), ElementsAre("db.example"));
  EXPECT_THAT(s_hostTexts("db.example:3307"), ElementsAre("db.example:3307"));
  EXPECT_THAT(s_hostTexts("a:3306, b ,,[::1]:3307,192.0.2.1"),
              ElementsAre("a:3306", "b", "[::1]:3307", "192.0.2.1"));
  EXPECT_THAT(s_hostTexts("::1,[2001:db8::2]"), ElementsAre("[::1]", "[2001:db8::2]"));
  EXPECT_THAT(s_hostTexts("localhost:3306"), ElementsAre("localhost:3306"));
  EXPECT_THAT(s_hostTexts("localhost,b"), ElementsAre("localhost", "b"));
}

TEST(HostList, WithoutAHostTheClientLibraryTakesWhatTheOptionsSay) {
  ASSERT_THAT(hostsOf({}), SizeIs(1));
  EXPECT_EQ(hostsOf({})[0].name, "");
  EXPECT_THAT(s_hostTexts("localhost"), ElementsAre(""));
  EXPECT_THAT(s_hostTexts(" , "), ElementsAre(""));
}

TEST(HostList, TheLastOptionCounts) {
  const auto hosts =
      hostsOf({{"host", "a", "file", 1}, {"port", "1", "file", 2}, {"host", "b", "file", 3}});
  ASSERT_THAT(hosts, SizeIs(1));
  EXPECT_EQ(hosts[0].text(), "b");
}

TEST(HostList, ANameBecomesItsAddressesAndOneThatIsUnknownStays) {
  const auto places =
      resolved({{"localhost", 7}, {"127.0.0.9", 8}, {"no.such.host.invalid", 9}, {}});
  std::set<std::string> texts;
  for (const Host& host : places) texts.insert(host.text());
  EXPECT_TRUE(texts.contains("127.0.0.1:7") || texts.contains("[::1]:7"));
  EXPECT_FALSE(texts.contains("localhost:7"));
  EXPECT_TRUE(texts.contains("127.0.0.9:8"));
  EXPECT_TRUE(texts.contains("no.such.host.invalid:9"));
  EXPECT_TRUE(texts.contains(""));
}

class HostOrder : public testing::Test {
 protected:
  void SetUp() override { HostHealth::forgetAll(); }

  // The tries at the time `now`, "?" behind those that are a probe.
  [[nodiscard]] std::vector<std::string> order(std::chrono::seconds later = {},
                                               const std::set<std::string>& avoided = {}) const {
    std::vector<std::string> texts;
    for (const auto& [host, isProbe] : attemptsAt(m_hosts, avoided, m_now + later)) {
      texts.push_back(host->text() + (isProbe ? "?" : ""));
    }
    return texts;
  }

  const std::vector<Host> m_hosts{{"a", 0}, {"b", 0}, {"c", 0}};
  const HostHealth::Clock::time_point m_now = HostHealth::Clock::now();
};

TEST_F(HostOrder, HostsThatWorkAreTriedAsTheyAreListed) {
  EXPECT_THAT(order(), ElementsAre("a", "b", "c"));
}

TEST_F(HostOrder, AHostThatFailedComesLast) {
  HostHealth::failed("a", m_now);
  EXPECT_THAT(order(), ElementsAre("b", "c", "a"));
}

TEST_F(HostOrder, OneHostWhoseTimeIsOverGetsAShortChanceFirst) {
  HostHealth::failed("a", m_now);
  HostHealth::failed("c", m_now);
  EXPECT_THAT(order(std::chrono::seconds(1)),
              AnyOf(ElementsAre("a?", "b", "a", "c"), ElementsAre("a?", "b", "c", "a")));
}

TEST_F(HostOrder, WhenAllFailedAllAreTried) {
  for (const Host& host : m_hosts) HostHealth::failed(host.text(), m_now);
  EXPECT_THAT(order(), UnorderedElementsAre("a", "b", "c"));
  // The one first that was left alone for longest.
  HostHealth::failed("c", m_now);
  HostHealth::failed("c", m_now);
  HostHealth::failed("a", m_now);
  EXPECT_THAT(order(), ElementsAre("b", "a", "c"));
  EXPECT_THAT(order(std::chrono::seconds(9)), ElementsAre("b", "a", "c"));
}

TEST_F(HostOrder, AHostToAvoidIsTriedWhenNoOtherWorks) {
  EXPECT_THAT(order({}, {"a"}), ElementsAre("b", "c", "a"));
  HostHealth::failed("b", m_now);
  EXPECT_THAT(order({}, {"a"}), ElementsAre("c", "b", "a"));
}

}  // namespace
}  // namespace Tessel::Database
