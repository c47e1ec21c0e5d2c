// Wait: a call of the client library ends in time, with or without its answer.
#include "database/Wait.h"

#include <errmsg.h>

#include <chrono>
#include <memory>
#include <string>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

class WaitTest : public DatabaseTest {
 protected:
  void SetUp() override { connect(30); }

  void connect(unsigned int readTimeout) {
    m_mysql.reset(mysql_init(nullptr));
    mysql_options(m_mysql.get(), MYSQL_OPT_NONBLOCK, nullptr);
    mysql_options(m_mysql.get(), MYSQL_OPT_READ_TIMEOUT, &readTimeout);
    ASSERT_NE(mysql_real_connect(m_mysql.get(), nullptr, callerName().c_str(), nullptr, nullptr, 0,
                                 server().socketPath().c_str(), 0),
              nullptr);
  }

  // What the client library returns for `text`, asked until `until`.
  int ask(const std::string& text, Clock::time_point until) {
    return callUntil<int>(
        m_mysql.get(), until,
        [&](int* result) {
          return mysql_real_query_start(result, m_mysql.get(), text.data(), text.size());
        },
        [&](int* result, int events) {
          return mysql_real_query_cont(result, m_mysql.get(), events);
        });
  }

  std::unique_ptr<MYSQL, decltype(&mysql_close)> m_mysql{nullptr, &mysql_close};
};

TEST_F(WaitTest, AnAnswerInTimeIsTaken) {
  EXPECT_EQ(ask("do sleep(0.05)", Clock::now() + std::chrono::seconds(10)), 0);
  EXPECT_EQ(mysql_query(m_mysql.get(), "do 0"), 0);
}

TEST_F(WaitTest, WithoutAnAnswerTheCallFailsWhenTheTimeIsOver) {
  const Clock::time_point start = Clock::now();
  EXPECT_NE(ask("do sleep(5)", start + milliseconds(200)), 0);
  EXPECT_EQ(mysql_errno(m_mysql.get()), static_cast<unsigned int>(CR_SERVER_LOST));
  EXPECT_GE(Clock::now() - start, milliseconds(200));
  EXPECT_LT(Clock::now() - start, milliseconds(1500));
}

TEST_F(WaitTest, NothingIsWaitedForWhenTheTimeIsOverAlready) {
  EXPECT_NE(ask("do sleep(5)", Clock::now()), 0);
}

TEST_F(WaitTest, ATimeOutOfTheClientLibraryItselfCounts) {
  connect(1);
  const Clock::time_point start = Clock::now();
  EXPECT_NE(ask("do sleep(5)", start + std::chrono::seconds(10)), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
}

}  // namespace
}  // namespace Tessel::Database
