// /ready covers all that is asked for, and the log says when rows become too old, and when that is
// over.
#include "serve/image/Readiness.h"

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ErrorOutput.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::HasSubstr;

class ReadinessTest : public testing::Test {
 protected:
  void SetUp() override { m_settings.stale = minutes(10); }
  void TearDown() override { EXPECT_EQ(reported(), ""); }

  // What was logged since the last call.
  std::string reported() {
    m_log.flush();
    return m_error.take();
  }

  Testing::ErrorOutput m_error;
  Settings m_settings;
  Tables m_tables{m_settings};
  Log m_log{LogLevel::Warning};
  Readiness m_readiness{m_settings, m_tables, m_log};
  const Clock::time_point m_now = Clock::now();
};

TEST_F(ReadinessTest, EveryTableMustBeRead) {
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
  const TablePointer alias = m_tables.add("alias");
  const TablePointer mask = m_tables.add("mask");
  EXPECT_EQ(m_readiness.whyNot(m_now),
            "alias: the table could not be read yet; mask: the table could not be read yet");
  publishRows(*alias, {}, m_now);
  publishRows(*mask, {}, m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
}

TEST_F(ReadinessTest, SaysHowOldRowsAreThatAreTooOld) {
  publishRows(*m_tables.add("alias"), {}, m_now - seconds(601));
  EXPECT_EQ(m_readiness.whyNot(m_now),
            "alias: the database is unavailable, and the rows in memory are too old (last known to "
            "be right 601 s ago)");
  EXPECT_EQ(m_readiness.whyNot(m_now - seconds(1)), "");
}

TEST_F(ReadinessTest, PoliciesNeedRules) {
  m_readiness.report(m_now);
  m_tables.setNames({"alias"});
  m_readiness.report(m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
  m_tables.setRulesNeeded();
  for (int i = 0; i < 2; ++i) m_readiness.report(m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now), "there is no table rules that the SQL user may read");
  EXPECT_EQ(reported(),
            "tsl-address-map: error: there is no table rules that the SQL user may read, so"
            " policies have the mail for aliases wait (DEFER_IF_PERMIT): run 'tsl-address-map"
            " init', and grant the SQL user the right to select\n");
  publishRows(*m_tables.add("rules"), {}, m_now);
  m_readiness.report(m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
  EXPECT_EQ(reported(), "tsl-address-map: warning: there is a table rules now\n");
}

TEST_F(ReadinessTest, CoversTheConfigurationWhenItIsNeeded) {
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
  Configuration& configuration = m_tables.configuration();
  configuration.setNeeded();
  EXPECT_EQ(m_readiness.whyNot(m_now), "configuration: it could not be read yet");
  const ServedDomains served;
  configuration.publish(ServedDomains::image(), m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now + minutes(10)), "");
  EXPECT_EQ(m_readiness.whyNot(m_now + minutes(11)),
            "configuration: it is too old (last known to be right 660 s ago)");
}

TEST_F(ReadinessTest, RowsThatBecomeTooOldAreReportedOnceAndSoIsTheEnd) {
  const TablePointer alias = m_tables.add("alias");
  publishRows(*alias, {}, m_now);
  m_readiness.report(m_now + minutes(10));
  EXPECT_EQ(reported(), "");
  for (int i = 1; i < 4; ++i) m_readiness.report(m_now + minutes(10) + seconds(i));
  EXPECT_EQ(reported(),
            "tsl-address-map: error: table alias was last known to be right 601 s ago, longer than "
            "--stale: what needs it is answered TEMP until it can be read again\n");
  alias->confirm(m_now + minutes(20));
  for (int i = 1; i < 4; ++i) m_readiness.report(m_now + minutes(20) + seconds(i));
  EXPECT_EQ(reported(), "tsl-address-map: warning: table alias is not too old any more\n");
}

TEST_F(ReadinessTest, AConfigurationThatBecomesTooOldIsReportedToo) {
  const ServedDomains served;
  m_tables.configuration().publish(ServedDomains::image(), m_now);
  m_readiness.report(m_now + minutes(11));
  EXPECT_THAT(reported(), HasSubstr("the configuration of domains and mail users was last known to "
                                    "be right 660 s ago, longer than --stale"));
  m_tables.configuration().confirm(m_now + minutes(11));
  m_readiness.report(m_now + minutes(11));
  EXPECT_THAT(reported(), HasSubstr("mail users is not too old any more"));
}

TEST_F(ReadinessTest, ANameOfOnlyThatNoTableHasIsReportedWithTheTablesThatThereAre) {
  m_settings.tables = {"sales", "nosuch"};
  m_readiness.report(m_now);
  EXPECT_EQ(reported(), "") << "before the tables were listed";
  m_tables.setNames({"alias", "alias_sales", "mask", "mask_staff"});
  // It need not have both.
  publishRows(*m_tables.add("alias_sales"), {}, m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now), "--only nosuch: there is no such table");
  for (int i = 0; i < 3; ++i) m_readiness.report(m_now);
  EXPECT_EQ(reported(),
            "tsl-address-map: error: --only nosuch: there is no table alias_nosuch or mask_nosuch, "
            "and its requests are answered TEMP; the named tables are alias_sales, mask_staff\n");
  publishRows(*m_tables.add("mask_nosuch"), {}, m_now);
  for (int i = 0; i < 3; ++i) m_readiness.report(m_now);
  EXPECT_EQ(reported(), "tsl-address-map: warning: --only nosuch: there is a table now\n");
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
}

TEST_F(ReadinessTest, ATableThatIsAskedForAndNotThereIsReported) {
  m_tables.noteUnknown("alias_slaes", m_now);
  m_readiness.report(m_now);
  EXPECT_EQ(reported(), "") << "before the tables were listed";
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
  m_tables.setNames({"alias", "alias_sales", "mask"});
  for (int i = 0; i < 3; ++i) m_readiness.report(m_now + seconds(i));
  EXPECT_EQ(reported(),
            "tsl-address-map: error: mail servers ask for table alias_slaes and are answered TEMP: "
            "there is no such table; the named tables are alias_sales\n");
  EXPECT_EQ(m_readiness.whyNot(m_now),
            "alias_slaes: mail servers ask for it, and it is not served");
  EXPECT_EQ(m_readiness.whyNot(m_now + minutes(2)), "");
}

TEST_F(ReadinessTest, ATableThatOnlyLeavesOutIsReportedAsSuch) {
  m_settings.tables = {"sales"};
  m_tables.setNames({"alias", "alias_sales", "alias_staff", "mask"});
  publishRows(*m_tables.add("alias_sales"), {}, m_now);
  m_tables.noteUnknown("alias_staff", m_now);
  m_readiness.report(m_now);
  EXPECT_THAT(reported(), HasSubstr("alias_staff and are answered TEMP: --only leaves it out; "));
}

TEST_F(ReadinessTest, ATableThatIsGoneForGoodIsNotExpectedAnyMore) {
  m_settings.tables = {"sales"};
  m_tables.setNames({"alias", "mask"});
  m_tables.add("alias_sales");
  m_tables.remove("alias_sales");
  m_tables.noteUnknown("alias_sales", m_now);
  EXPECT_EQ(m_readiness.whyNot(m_now), "");
  // Its requests fail all the same.
  m_readiness.report(m_now);
  EXPECT_THAT(reported(), HasSubstr("there is no such table; there are no named tables"));
}

TEST_F(ReadinessTest, ATableThatIsInDoubtWasReportedBefore) {
  const TablePointer alias = m_tables.add("alias");
  publishRows(*alias, {}, m_now);
  alias->setState(TableState::Missing);
  m_readiness.report(m_now + minutes(11));
}

}  // namespace
}  // namespace Tessel::Serve
