// The observer of statements.
#include "database/StatementObserver.h"

#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "database/DatabaseTest.h"
#include "database/Transaction.h"

namespace Tessel::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::mutex s_mutex;
std::vector<std::string> s_seen;

void s_observe(std::string_view statement) noexcept {
  const std::lock_guard<std::mutex> lock(s_mutex);
  s_seen.emplace_back(statement);
}

std::vector<std::string> s_take() {
  const std::lock_guard<std::mutex> lock(s_mutex);
  return std::exchange(s_seen, {});
}

class StatementObserverTest : public DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    s_take();
  }
  void TearDown() override { setStatementObserver(nullptr); }
};

TEST_F(StatementObserverTest, SeesWhatTheServerReceives) {
  Connection connection(s_name);
  makeTable();
  const Testing::GeneralLog log(server());
  setStatementObserver(&s_observe);
  {
    Transaction transaction(connection);
    run(connection, "insert into t values( 'a\n\x01', 1 )", false);
    transaction.commit();
  }
  Transaction undone(connection);
  undone.rollback();
  const std::vector<std::string> seen = s_take();
  EXPECT_THAT(seen, ElementsAre("start transaction", "insert into t values( 'a\n\x01', 1 )",
                                "commit", "start transaction", "rollback"));
  EXPECT_EQ(seen, log.statementsSince());
}

TEST_F(StatementObserverTest, SeesStatementsThatTheServerRefusesAndTheQuestionBehindThem) {
  Connection connection(s_name);
  const Transaction transaction(connection);
  setStatementObserver(&s_observe);
  EXPECT_THROW(run(connection, "select nonsense", false), Error);
  EXPECT_THAT(s_take(), ElementsAre("select nonsense", "do 0"));
}

TEST_F(StatementObserverTest, SeesTheSetUpOfEverySessionAndNothingOfItsEnd) {
  setStatementObserver(&s_observe);
  { const Connection connection(SocketAddress::unixPath(server().socketPath()), s_name); }
  { const Connection connection(s_name); }
  EXPECT_THAT(s_take(),
              ElementsAre(HasSubstr("set names utf8mb4"), HasSubstr("set names utf8mb4")));
}

TEST_F(StatementObserverTest, IsToldTwiceOfAStatementThatIsSentTwice) {
  Connection connection(s_name);
  sql("kill " + std::to_string(connection.id()));
  setStatementObserver(&s_observe);
  EXPECT_EQ(value(connection, "select 1"), "1");
  EXPECT_EQ(s_take().back(), "select 1");
}

TEST_F(StatementObserverTest, SeesNoPassword) {
  sql("create or replace user observed@localhost identified by 'hidden word'");
  const Testing::TestServer::OptionFile options(
      server(),
      "[client]\nsocket=" + server().socketPath() + "\nuser=observed\npassword=hidden word\n");
  setStatementObserver(&s_observe);
  Connection connection("");
  EXPECT_EQ(value(connection, "select substring_index( current_user(), '@', 1 )"), "observed");
  const std::vector<std::string> seen = s_take();
  EXPECT_THAT(seen, Not(IsEmpty()));
  for (const std::string& statement : seen) EXPECT_THAT(statement, Not(HasSubstr("hidden word")));
}

TEST_F(StatementObserverTest, SeesNothingMoreOnceItIsTakenAway) {
  Connection connection(s_name);
  setStatementObserver(&s_observe);
  run(connection, "select 1");
  setStatementObserver(nullptr);
  run(connection, "select 2");
  EXPECT_THAT(s_take(), ElementsAre("select 1"));
}

TEST_F(StatementObserverTest, MayBeSetWhileOtherThreadsSendStatements) {
  constexpr int s_rounds = 200;
  constexpr int s_threads = 3;
  std::vector<std::thread> threads;
  for (int i = 0; i < s_threads; ++i) {
    threads.emplace_back([] {
      Connection connection(s_name);
      for (int round = 0; round < s_rounds; ++round) run(connection, "select 1");
    });
  }
  for (int round = 0; round < s_rounds; ++round) {
    setStatementObserver(&s_observe);
    setStatementObserver(nullptr);
  }
  setStatementObserver(&s_observe);
  {
    Connection connection(s_name);
    run(connection, "select 'last'");
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(s_take(), testing::Contains("select 'last'"));
}

}  // namespace
}  // namespace Tessel::Database
