// The answer for an alias, and how long it may be given again.
#include "serve/answer/AliasAnswer.h"

#include <new>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ErrorOutput.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class AliasAnswerTest : public testing::Test {
 protected:
  void serve(const Rows& rows) { publishRows(*m_tables.add("alias"), rows); }

  std::optional<Answer> ask(const std::string& key, Effort effort = Effort::Any) {
    const TablePointer table = m_tables.find("alias");
    return aliasAnswer(m_tables, *table, *table->image(), {}, key, effort, Clock::now(), m_log);
  }

  // `count` addresses as the members of a row.
  static std::string members(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
      text += (i == 0 ? "" : ",") + std::string("u") + std::to_string(i) + "@d.example";
    }
    return text;
  }

  Settings m_settings;
  Tables m_tables{m_settings};
  Log m_log{LogLevel::Warning};
};

TEST_F(AliasAnswerTest, HoldsAsLongAsTheImageWhenTheTableDecidesItAlone) {
  serve({{"a@d.example", "b@d.example"},
         {"l@d.example", "m@d.example"},
         {"m@d.example", "l@d.example"}});
  EXPECT_EQ(ask("a@d.example")->reply(), "OK b@d.example");
  EXPECT_EQ(ask("a@d.example")->validity, Validity::Image);
  EXPECT_EQ(ask("x@d.example")->reply(), "NOTFOUND ");
  EXPECT_EQ(ask("x@d.example")->validity, Validity::Image);
  EXPECT_EQ(ask("l@d.example")->reply(), "PERM this alias reaches nobody");
  EXPECT_EQ(ask("l@d.example")->validity, Validity::Image);
}

TEST_F(AliasAnswerTest, AnAliasLoopIsReportedAndShownAtTheLevelDebugOnly) {
  serve({{"l@d.example", "m@d.example"}, {"m@d.example", "l@d.example"}});
  const std::string report =
      "tsl-address-map: warning: table alias: mail for an alias was rejected because it leads into "
      "an alias loop and reaches nobody; 'tsl-address-map check' names it\n";
  const std::string loop =
      "tsl-address-map: debug: alias loop: l@d.example -> m@d.example -> l@d.example\n";
  const TablePointer table = m_tables.find("alias");
  for (const LogLevel level : {LogLevel::Info, LogLevel::Debug}) {
    testing::internal::CaptureStderr();
    Log log(level);
    aliasAnswer(m_tables, *table, *table->image(), {}, "l@d.example", Effort::Any, Clock::now(),
                log);
    log.flush();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              level == LogLevel::Debug ? report + loop : report);
  }
}

TEST_F(AliasAnswerTest, HoldsForAMomentWhenMailUsersDecideIt) {
  m_tables.configuration().publish(ServedDomains().image(), Clock::now());
  serve({{"all@d.example", "allusers_d.example"}, {"all@empty.example", "allusers_empty.example"}});
  EXPECT_THAT(ask("all@d.example")->reply(), HasSubstr("bob@d.example"));
  EXPECT_EQ(ask("all@d.example")->validity, Validity::Moment);
  EXPECT_EQ(ask("all@empty.example")->reply(), "PERM this alias reaches nobody");
  EXPECT_EQ(ask("all@empty.example")->validity, Validity::Moment);
}

TEST_F(AliasAnswerTest, HoldsAsLongAsItsPages) {
  serve({{"list@d.example", members(501)}});
  EXPECT_THAT(ask("list@d.example")->reply(), StartsWith("OK tslpage"));
  EXPECT_EQ(ask("list@d.example")->validity, Validity::Pages);
}

TEST_F(AliasAnswerTest, AShortEffortLeavesWhatTakesLong) {
  m_tables.configuration().publish(ServedDomains().image(), Clock::now());
  serve({{"short@d.example", members(1000)},
         {"long@d.example", members(3000)},
         {"leads@d.example", "long@d.example"},
         {"all@d.example", "allusers_d.example"}});
  EXPECT_TRUE(ask("short@d.example", Effort::Short));
  EXPECT_TRUE(ask("none@d.example", Effort::Short));
  for (const char* key : {"long@d.example", "leads@d.example", "all@d.example"}) {
    EXPECT_FALSE(ask(key, Effort::Short)) << key;
    EXPECT_THAT(ask(key)->reply(), StartsWith("OK ")) << key;
  }
}

TEST_F(AliasAnswerTest, MembersWithoutADomainAreLeftOutUnlessTheyAreWanted) {
  serve({{"a@d.example", "b@d.example,root,\"|prog\""}, {"local@d.example", "root"}});
  Testing::ErrorOutput error;
  EXPECT_EQ(ask("a@d.example")->reply(), "OK b@d.example");
  m_log.flush();
  EXPECT_EQ(error.take(),
            "tsl-address-map: warning: table alias: members without a domain are left out of"
            " answers; 'tsl-address-map check' names them, --local-names gives them\n");
  EXPECT_EQ(ask("local@d.example")->reply(), "TEMP this alias has members without a domain only");
  m_settings.localNames = true;
  EXPECT_THAT(ask("a@d.example")->reply(), HasSubstr("root"));
  EXPECT_EQ(ask("local@d.example")->reply(), "OK root");
}

TEST_F(AliasAnswerTest, AnAddressThatMailServersWouldCutIsNeverGiven) {
  serve({{"a@d.example", "b@d.example,c@[x:d,evil@evil.example]"}});
  EXPECT_EQ(ask("a@d.example")->reply(), "TEMP an address literal in this alias has a comma");
}

TEST_F(AliasAnswerTest, AFailureIsATemporaryAnswerThatIsNotGivenAgain) {
  const auto answerTo = [this](auto exception) {
    try {
      throw exception;
    } catch (const std::exception&) {
      return failureAnswer(m_log);
    }
  };
  EXPECT_EQ(answerTo(std::bad_alloc()).reply(), "TEMP out of memory");
  EXPECT_EQ(answerTo(std::runtime_error("secret")).reply(),
            "TEMP the request could not be answered");
  EXPECT_EQ(answerTo(std::bad_alloc()).validity, Validity::Once);
}

}  // namespace
}  // namespace Tessel::Serve
