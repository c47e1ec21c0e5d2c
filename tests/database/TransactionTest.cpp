// Transaction: all or nothing, also when the connection or the server breaks it.
#include "database/Transaction.h"

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class TransactionTest : public DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    makeTable();
    m_connection.dbSelect(s_name);
  }

  void insert(const std::string& name) {
    run(m_connection, "insert into t(name) values('" + name + "')");
  }
  static void killConnection(unsigned long id) { sql("kill " + std::to_string(id)); }

  Connection m_connection{""};
};

TEST_F(TransactionTest, ACommitMakesEverythingTakeEffect) {
  Transaction transaction(m_connection);
  EXPECT_TRUE(m_connection.inTransaction());
  insert("a");
  EXPECT_EQ(count(), "0");
  transaction.commit();
  EXPECT_EQ(count(), "1");
  EXPECT_FALSE(m_connection.inTransaction());
}

TEST_F(TransactionTest, WithoutACommitNothingTakesEffect) {
  {
    Transaction transaction(m_connection);
    insert("a");
  }
  EXPECT_EQ(count(), "0");
  insert("b");
  EXPECT_EQ(count(), "1");
}

TEST_F(TransactionTest, ARollbackEndsIt) {
  Transaction transaction(m_connection);
  insert("a");
  transaction.rollback();
  transaction.rollback();
  insert("b");
  EXPECT_EQ(count(), "1");
  const auto got = caughtError([&] { transaction.commit(); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1305U);
  EXPECT_EQ(got->context(), "Database::Transaction::commit");
}

TEST_F(TransactionTest, ASecondOneOnTheSameConnectionIsRefused) {
  Transaction transaction(m_connection);
  insert("a");
  const auto got = caughtError([&] { Transaction second(m_connection); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1568U);
  EXPECT_EQ(got->context(), "Database::Transaction");
  EXPECT_STREQ(got->file(), "Transaction");
  EXPECT_TRUE(m_connection.inTransaction());
  EXPECT_EQ(count(), "0");
}

TEST_F(TransactionTest, ALostConnectionFailsEveryFurtherStatement) {
  Testing::GeneralLog log(server());
  {
    Transaction transaction(m_connection);
    insert("a");
    killConnection(m_connection.id());
    auto got = caughtError([&] { insert("b"); });
    ASSERT_TRUE(got);
    EXPECT_FALSE(got->outcomeUnknown());
    EXPECT_THAT(got->what(), HasSubstr("The transaction is lost"));
    got = caughtError([&] { insert("c"); });
    ASSERT_TRUE(got);
    EXPECT_THAT(got->what(), HasSubstr("The transaction is lost"));
    got = caughtError([&] { transaction.commit(); });
    ASSERT_TRUE(got);
    EXPECT_FALSE(got->outcomeUnknown());
    EXPECT_THROW(m_connection.dbSelect("mysql"), Error);
  }
  EXPECT_EQ(count(), "0");
  insert("d");
  EXPECT_EQ(count(), "1");
  EXPECT_THAT(log.statementsSince(),
              ElementsAre("start transaction", "insert into t(name) values('a')",
                          "insert into t(name) values('d')"));
}

TEST_F(TransactionTest, ATransactionWithoutTheGuardFailsOnceAndIsNotRepeated) {
  run(m_connection, "start transaction");
  insert("a");
  killConnection(m_connection.id());
  const auto got = caughtError([&] { run(m_connection, "select * from t"); });
  ASSERT_TRUE(got);
  EXPECT_THAT(got->what(), HasSubstr("The transaction is lost"));
  EXPECT_EQ(value(m_connection, "select count(*) from t"), "0");
}

TEST_F(TransactionTest, AServerThatDiesInsideATransactionLosesIt) {
  {
    Transaction transaction(m_connection);
    insert("a");
    server().kill();
    server().restart();
    EXPECT_THROW(insert("b"), Error);
  }
  EXPECT_EQ(count(), "0");
  EXPECT_EQ(value(m_connection, "select database()"), s_name);
}

TEST_F(TransactionTest, ADeadlockEndsItAndNothingIsCarriedOutOnItsOwn) {
  insert("1");
  insert("2");
  Connection other(s_name);
  run(other, "start transaction");
  // The other transaction weighs more, so the server picks this one as the victim.
  std::string rows;
  for (int i = 0; i < 50; ++i) rows += (i == 0 ? "('o" : ",('o") + std::to_string(i) + "')";
  run(other, "insert into t(name) values " + rows);
  run(other, "update t set n=1 where name='2'");
  Transaction transaction(m_connection);
  run(m_connection, "update t set n=1 where name='1'");
  std::thread blocked([&other] { run(other, "update t set n=1 where name='1'"); });
  while (sql("select count(*) from information_schema.innodb_trx where trx_state='LOCK WAIT'")
             .at(0)
             .at(0) == "0") {
    // The server renews that table only when nobody read it for a tenth of a second.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
  }
  auto got = caughtError([&] { run(m_connection, "update t set n=1 where name='2'"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1213U);
  blocked.join();
  run(other, "rollback");
  got = caughtError([&] { insert("alone"); });
  ASSERT_TRUE(got);
  EXPECT_THAT(got->what(), HasSubstr("The transaction is lost"));
  EXPECT_EQ(count(), "2");
}

TEST_F(TransactionTest, AStatementThatCommitsByItselfEndsIt) {
  Transaction transaction(m_connection);
  insert("a");
  run(m_connection, "create table other (a int)");
  EXPECT_THROW(insert("b"), Error);
  EXPECT_EQ(count(), "1");
}

TEST_F(TransactionTest, AFailedStatementLeavesItOpen) {
  Transaction transaction(m_connection);
  insert("a");
  EXPECT_THROW(insert("a"), Error);
  insert("b");
  transaction.commit();
  EXPECT_EQ(count(), "2");
}

class RelayedTransaction : public RelayedTest {};

TEST_F(RelayedTransaction, AStartWithoutAnswerIsMadeAgainOnANewConnection) {
  makeTable();
  Connection connection("tsl_test");
  m_relay.cutAfter(Testing::SocketRelay::Direction::ToClient, 2);
  {
    const Transaction transaction(connection);
    EXPECT_TRUE(m_relay.endCut());
    EXPECT_TRUE(connection.inTransaction());
    run(connection, "insert into t(name) values('a')");
  }
  EXPECT_EQ(value(connection, "select count(*) from t"), "0");
}

TEST_F(RelayedTransaction, AStartThatCannotBeMadeAgainIsAnErrorAndNoneIsOpen) {
  Connection connection("");
  m_relay.cutAfter(Testing::SocketRelay::Direction::ToClient, 2, true);
  const auto got = caughtError([&] { const Transaction transaction(connection); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->context(), "Database::Transaction");
  EXPECT_TRUE(got->outcomeUnknown());
  EXPECT_TRUE(m_relay.endCut());
  EXPECT_FALSE(connection.inTransaction());
  EXPECT_EQ(value(connection, "select 1"), "1");
}

TEST_F(RelayedTransaction, ACommitWithoutAnswerHasAnUnknownOutcome) {
  makeTable();
  for (const auto direction :
       {Testing::SocketRelay::Direction::ToServer, Testing::SocketRelay::Direction::ToClient}) {
    sql("delete from tsl_test.t");
    Connection connection(s_name);
    Transaction transaction(connection);
    run(connection, "insert into t(name) values('a')");
    m_relay.cutAfter(direction, 2);
    const auto got = caughtError([&] { transaction.commit(); });
    ASSERT_TRUE(got);
    EXPECT_TRUE(got->outcomeUnknown());
    EXPECT_EQ(got->context(), "Database::Transaction::commit");
    EXPECT_THAT(got->what(), HasSubstr("whether it was carried out is unknown"));
    m_relay.endCut();
    // Cut on the way there it did not take effect, on the way back it did.
    EXPECT_EQ(count(), direction == Testing::SocketRelay::Direction::ToServer ? "0" : "1");
  }
}

TEST_F(RelayedTransaction, ItsDestructorSendsNothingAndWaitsForNothing) {
  makeTable();
  Connection connection(s_name);
  auto transaction = std::make_unique<Transaction>(connection);
  run(connection, "insert into t(name) values('a')");
  m_relay.hold(true);
  const auto start = std::chrono::steady_clock::now();
  transaction.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  m_relay.hold(false);
  EXPECT_THAT(m_relay.statements(), Not(Contains("rollback")));
  run(connection, "insert into t(name) values('a')");
  EXPECT_EQ(count(), "1");
}

}  // namespace
}  // namespace Tessel::Database
