// A connection with several hosts: which one it uses, and when it leaves that for another one.
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "database/DatabaseTest.h"
#include "database/SessionSetting.h"
#include "database/Transaction.h"

namespace Tessel::Database {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;
using Direction = Testing::SocketRelay::Direction;

// Two servers, each behind a relay on a port of its own; the table `node` has the name of each.
class ConnectionHosts : public DatabaseTest {
 protected:
  static void SetUpTestSuite() {
    DatabaseTest::SetUpTestSuite();
    if (s_other) return;
    const std::string before = server().optionFile();
    s_other = std::make_unique<Testing::TestServer>();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    setenv("TSL_DATABASE_OPTION_FILE", before.c_str(), 1);
  }

  void SetUp() override {
    DatabaseTest::SetUp();
    for (Testing::TestServer* one : {&server(), s_other.get()}) {
      const std::string name = one == s_other.get() ? "b" : "a";
      one->sql("create or replace database tsl_test");
      one->sql("create table tsl_test.node as select '" + name + "' name");
      one->sql("create or replace user hosts@localhost identified by 'secret'");
      one->sql("grant all on tsl_test.* to hosts@localhost");
    }
    use("");
  }
  void TearDown() override {
    server().sql("set global read_only = 0");
    s_other->sql("set global read_only = 0");
  }

  // Has connections use both hosts, with further options.
  void use(const std::string& options) const {
    m_options.write("[client]\nhost=" + m_a.path() + "," + m_b.path() +
                    "\nuser=hosts\npassword=secret\n" + options);
  }
  static std::string nodeOf(Connection& connection) {
    return value(connection, "select name from node");
  }
  static std::string nodeNow() {
    Connection connection(s_name);
    return nodeOf(connection);
  }
  template <class Call>
  static milliseconds timeOf(Call call) {
    const Clock::time_point start = Clock::now();
    call();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  }

  static std::unique_ptr<Testing::TestServer> s_other;

  Testing::SocketRelay m_a{{server().socketPath()}};
  Testing::SocketRelay m_b{{s_other->socketPath()}};
  Testing::TestServer::OptionFile m_options{server(), "[client]\n"};
};

std::unique_ptr<Testing::TestServer> ConnectionHosts::s_other;

TEST_F(ConnectionHosts, TheFirstOneIsUsedWhileItWorks) {
  EXPECT_EQ(nodeNow(), "a");
  EXPECT_EQ(nodeNow(), "a");
  EXPECT_EQ(m_b.connections(), 0);
}

TEST_F(ConnectionHosts, EachCanBeNamedAndAskedAlone) {
  const auto hosts = Connection::hosts();
  ASSERT_EQ(hosts.size(), 2U);
  for (const auto& [host, node] : {std::pair(hosts[0], "a"), std::pair(hosts[1], "b")}) {
    Connection connection(host, s_name);
    EXPECT_EQ(nodeOf(connection), node);
    EXPECT_EQ(connection.host().name, host.name);
  }
  m_a.goDown();
  EXPECT_THAT(caughtError([&] { const Connection connection(hosts[0], s_name); })->what(),
              HasSubstr(m_a.path()));
}

TEST_F(ConnectionHosts, ANameIsReachedAtEachOfItsAddresses) {
  // The relay listens on 127.0.0.1 alone, and the name may be ::1 first.
  const std::string port = m_a.path().substr(m_a.path().find(':'));
  m_options.write("[client]\nhost=localhost" + port + "\nuser=hosts\npassword=secret\n");
  EXPECT_EQ(nodeNow(), "a");
}

TEST_F(ConnectionHosts, OneThatIsToBeLeftIsPassedOverForAWhile) {
  Connection connection(s_name);
  EXPECT_EQ(nodeOf(connection), "a");
  connection.leaveHost();
  EXPECT_EQ(nodeOf(connection), "b");
  EXPECT_EQ(nodeNow(), "b");
}

TEST_F(ConnectionHosts, OneThatIsDownIsPassedOver) {
  m_a.goDown();
  EXPECT_EQ(nodeNow(), "b");
}

TEST_F(ConnectionHosts, OneThatStaysSilentHoldsUpTheFirstConnectionAndNotTheNext) {
  use("connect-timeout=2\n");
  m_a.hold(true);
  const auto first = timeOf([] { EXPECT_EQ(nodeNow(), "b"); });
  EXPECT_GT(first, milliseconds(900));
  EXPECT_LT(first, milliseconds(1900));
  const int asked = m_a.connections();
  EXPECT_LT(timeOf([] { EXPECT_EQ(nodeNow(), "b"); }), milliseconds(300));
  EXPECT_EQ(m_a.connections(), asked);
  // Its pause is over, and it gets a short chance.
  std::this_thread::sleep_for(milliseconds(700));
  const auto probed = timeOf([] { EXPECT_EQ(nodeNow(), "b"); });
  EXPECT_GT(probed, milliseconds(290));
  EXPECT_LT(probed, milliseconds(900));
  EXPECT_GT(m_a.connections(), asked);
}

TEST_F(ConnectionHosts, OneThatWorksAgainIsUsedAgain) {
  m_a.cutAfter(Direction::ToClient, 0, true);
  EXPECT_EQ(nodeNow(), "b");
  m_a.endCut();
  std::this_thread::sleep_for(milliseconds(700));
  EXPECT_EQ(nodeNow(), "a");
}

TEST_F(ConnectionHosts, AllShareTheConnectTimeOut) {
  use("connect-timeout=2\n");
  m_a.hold(true);
  m_b.hold(true);
  const auto time = timeOf([&] {
    const auto got = caughtError([] { Connection connection(s_name); });
    ASSERT_TRUE(got);
    EXPECT_THAT(got->what(), AllOf(HasSubstr("None of the 2 hosts can be used"),
                                   HasSubstr(m_a.path()), HasSubstr(m_b.path())));
  });
  EXPECT_GT(time, milliseconds(1900));
  EXPECT_LT(time, milliseconds(2600));
}

TEST_F(ConnectionHosts, OneThatRefusesTheLoginIsPassedOver) {
  sql("alter user hosts@localhost identified by 'other'");
  EXPECT_EQ(nodeNow(), "b");
  s_other->sql("alter user hosts@localhost identified by 'other'");
  const auto got = caughtError([] { Connection connection(s_name); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1045U);
  EXPECT_THAT(got->what(), testing::Not(HasSubstr("secret")));
}

TEST_F(ConnectionHosts, OneWithTooManyConnectionsIsPassedOver) {
  sql("set global max_connections = 10");
  std::vector<std::unique_ptr<Connection>> held;
  for (int i = 0; i < 12; ++i) held.push_back(std::make_unique<Connection>(s_name));
  EXPECT_EQ(nodeOf(*held.front()), "a");
  EXPECT_EQ(nodeOf(*held.back()), "b");
  sql("set global max_connections = default");
}

TEST_F(ConnectionHosts, AMissingDatabaseIsTheAnswerOfAHostThatWorks) {
  sql("grant all on tsl_nowhere.* to hosts@localhost");
  const auto got = caughtError([] { Connection connection("tsl_nowhere"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1049U);
  EXPECT_EQ(m_b.connections(), 0);
  EXPECT_EQ(nodeNow(), "a");
}

TEST_F(ConnectionHosts, ALookupThatLosesItsHostIsAnsweredByAnother) {
  Connection connection(s_name);
  EXPECT_EQ(nodeOf(connection), "a");
  m_a.goDown();
  EXPECT_EQ(nodeOf(connection), "b");
}

TEST_F(ConnectionHosts, ATransactionThatLosesItsHostIsLost) {
  Connection connection(s_name);
  {
    Transaction transaction(connection);
    run(connection, "insert into node values('x')");
    m_a.goDown();
    EXPECT_THAT(caughtError([&] { run(connection, "insert into node values('y')"); })->what(),
                HasSubstr("The transaction is lost"));
  }
  EXPECT_EQ(value(connection, "select group_concat(name) from node"), "b");
}

TEST_F(ConnectionHosts, AnInsertThatLosesItsHostBeforeTheAnswerHasAnUnknownOutcome) {
  Connection connection(s_name);
  m_a.cutAfter(Direction::ToClient, 0, true);
  const auto got = caughtError([&] { run(connection, "insert into node values('x')", false); });
  ASSERT_TRUE(got);
  EXPECT_TRUE(got->outcomeUnknown());
  EXPECT_EQ(s_other->sql("select count(*) from tsl_test.node").at(0).at(0), "1");
}

// A node that is cut off from its cluster answers so; the function has the first server do it.
class CutOffNode : public ConnectionHosts {
 protected:
  void SetUp() override {
    ConnectionHosts::SetUp();
    makeFunction(server(), true);
    makeFunction(*s_other, false);
  }
  static void makeFunction(Testing::TestServer& one, bool isCutOff) {
    one.sql(std::string("create function tsl_test.f() returns varchar(9) begin ") +
            (isCutOff ? "signal sqlstate '08S01' set mysql_errno=1047,"
                        " message_text='WSREP has not yet prepared node'; "
                      : "") +
            "return (select name from tsl_test.node limit 1); end");
  }
};

TEST_F(CutOffNode, IsLeftForAnotherOneThatCarriesTheStatementOut) {
  Connection connection(s_name);
  EXPECT_EQ(nodeOf(connection), "a");
  EXPECT_EQ(value(connection, "select f()", false), "b");
  EXPECT_EQ(nodeOf(connection), "b");
  // It is known to all connections.
  EXPECT_EQ(nodeNow(), "b");
}

TEST_F(CutOffNode, LosesTheTransaction) {
  Connection connection(s_name);
  Transaction transaction(connection);
  const auto got = caughtError([&] { run(connection, "insert into node values(f())"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1047U);
  EXPECT_FALSE(got->outcomeUnknown());
  EXPECT_THROW(transaction.commit(), Error);
}

TEST_F(CutOffNode, HasAnUnknownOutcomeWhenThatHappensDuringACommit) {
  sql("drop function tsl_test.f");
  sql("create procedure tsl_test.p() signal sqlstate 'HY000' set mysql_errno=1180,"
      " message_text='Not connected to Primary Component'");
  Connection connection(s_name);
  const auto got = caughtError([&] { run(connection, "call p()", false); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1180U);
  EXPECT_TRUE(got->outcomeUnknown());
  EXPECT_EQ(nodeOf(connection), "b");
}

TEST_F(CutOffNode, IsOneThatCannotWaitForTheOthers) {
  server().sql(
      "create or replace function tsl_test.f() returns varchar(9) begin"
      " signal sqlstate 'HY000' set mysql_errno=1205; return 'a'; end");
  Connection connection(s_name);
  EXPECT_EQ(caughtError([&] { run(connection, "select f()"); })->number(), 1205U);
  waitForOtherNodes(true);
  EXPECT_EQ(value(connection, "select f()", false), "b");
  waitForOtherNodes(false);
}

// They are while they agree on going on without a node that died.
TEST_F(CutOffNode, IsWaitedForWhenAllAreForAMoment) {
  for (Testing::TestServer* one : {&server(), s_other.get()}) {
    one->sql("create table tsl_test.agreed (n int)");
    one->sql(
        "create or replace function tsl_test.f() returns int begin"
        " if not exists (select 1 from tsl_test.agreed) then"
        " signal sqlstate '08S01' set mysql_errno=1047; end if; return 7; end");
  }
  Connection connection(s_name);
  const auto time = timeOf([&] {
    const std::jthread later([] {
      std::this_thread::sleep_for(milliseconds(600));
      s_other->sql("insert into tsl_test.agreed values(1)");
    });
    EXPECT_EQ(value(connection, "select f()"), "7");
  });
  EXPECT_GT(time, milliseconds(590));
  EXPECT_LT(time, milliseconds(2500));
  EXPECT_EQ(nodeOf(connection), "b");
}

TEST_F(CutOffNode, IsNamedWhenAllAreCutOff) {
  use("connect-timeout=1\n");
  s_other->sql("drop function tsl_test.f");
  makeFunction(*s_other, true);
  Connection connection(s_name);
  const auto refused = [&connection] {
    const auto got = caughtError([&] { run(connection, "select f()"); });
    ASSERT_TRUE(got);
    EXPECT_EQ(got->number(), 1047U);
    EXPECT_FALSE(got->outcomeUnknown());
  };
  const auto time = timeOf(refused);
  EXPECT_GT(time, milliseconds(800));
  EXPECT_LT(time, milliseconds(1800));
  // Whoever asks later need not wait again.
  EXPECT_LT(timeOf(refused), milliseconds(500));
}

TEST_F(ConnectionHosts, AWriterLeavesAHostThatIsReadOnlyAndReadersStay) {
  sql("set global read_only = 1");
  Connection reader(s_name);
  // Also when the write is the first that it sends.
  Connection writer(s_name);
  run(writer, "insert into node values('n')", false);
  EXPECT_EQ(s_other->sql("select count(*) from tsl_test.node").at(0).at(0), "2");
  run(writer, "delete from node where name='n'", false);
  EXPECT_EQ(nodeOf(writer), "b");
  EXPECT_EQ(nodeOf(reader), "a");
  EXPECT_EQ(nodeNow(), "a");
  EXPECT_EQ(m_b.connections(), 1);
  // The two exchange their parts.
  sql("set global read_only = 0");
  s_other->sql("set global read_only = 1");
  run(writer, "insert into node values('n')", false);
  EXPECT_EQ(count("node"), "2");
  run(writer, "delete from node where name='n'", false);
}

TEST_F(ConnectionHosts, AWriteIsRefusedWhenAllHostsAreReadOnly) {
  sql("set global read_only = 1");
  s_other->sql("set global read_only = 1");
  Connection connection(s_name);
  const auto got = caughtError([&] { run(connection, "insert into node values('x')"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1290U);
  EXPECT_THAT(connection.peerAddress().text(), HasSubstr("127.0.0.1"));
}

class ImpatientConnection : public ConnectionHosts {
 protected:
  void SetUp() override {
    ConnectionHosts::SetUp();
    m_connection = std::make_unique<Connection>(s_name);
    m_connection->setPatience(milliseconds(500));
    m_a.hold(true);
  }

  std::unique_ptr<Connection> m_connection;
};

TEST_F(ImpatientConnection, AsksAnotherHostWhenTheFirstTakesLonger) {
  EXPECT_LT(timeOf([&] { EXPECT_EQ(nodeOf(*m_connection), "b"); }), seconds(5));
  // The first one counts as failed, and is not even asked.
  EXPECT_LT(timeOf([&] { EXPECT_EQ(nodeNow(), "b"); }), milliseconds(500));
}

TEST_F(ImpatientConnection, GivesTheOtherHostAllTheTime) {
  EXPECT_EQ(value(*m_connection, "select sleep(1) + 5"), "5");
}

TEST_F(ImpatientConnection, StartsATransactionElsewhereAndThenWaitsForItsAnswers) {
  const Transaction transaction(*m_connection);
  EXPECT_EQ(nodeOf(*m_connection), "b");
  EXPECT_EQ(value(*m_connection, "select sleep(1) + 5"), "5");
}

TEST_F(ImpatientConnection, WaitsForAWriteAsLongAsOthersDo) {
  const std::jthread later([this] {
    std::this_thread::sleep_for(seconds(1));
    m_a.hold(false);
  });
  run(*m_connection, "insert into node values('x')", false);
  EXPECT_EQ(server().sql("select count(*) from tsl_test.node").at(0).at(0), "2");
}

TEST_F(ImpatientConnection, WaitsForTheOnlyHost) {
  use("host=" + m_b.path() + "\n");
  m_connection = std::make_unique<Connection>(s_name);
  m_connection->setPatience(milliseconds(500));
  EXPECT_EQ(value(*m_connection, "select sleep(1) + 5"), "5");
}

// Both wait for the whole time-out for reading, so they wait together.
TEST_F(ConnectionHosts, ReadingEndsAfterItsTimeOutAlsoWhenTheStatementIsRepeated) {
  Testing::SocketRelay alone({server().socketPath()});
  Connection repeating(s_name);
  m_options.write("[client]\nhost=" + alone.path() + "\nuser=hosts\npassword=secret\n");
  Connection single(s_name);
  Testing::GeneralLog log(server());
  m_a.hold(true);
  alone.hold(true);
  use("");
  milliseconds repeated{};
  std::jthread other([&] {
    repeated = timeOf([&] {
      EXPECT_TRUE(caughtError([&] { run(repeating, "select sleep(15), name from node"); }));
    });
  });
  std::jthread breaking([&] {
    std::this_thread::sleep_for(seconds(20));
    m_a.goDown();
  });
  const auto time = timeOf([&] {
    const auto got = caughtError([&] { run(single, "select 'slow'"); });
    ASSERT_TRUE(got);
    EXPECT_TRUE(got->outcomeUnknown());
    EXPECT_THAT(got->what(), HasSubstr("No answer came in time"));
  });
  alone.hold(false);
  other.join();
  // Nobody was asked twice who may still be at work.
  EXPECT_THAT(log.statementsSince(),
              UnorderedElementsAre("select 'slow'", "select sleep(15), name from node"));
  for (const milliseconds one : {time, repeated}) {
    EXPECT_GT(one, seconds(29));
    EXPECT_LT(one, seconds(34));
  }
}

}  // namespace
}  // namespace Tessel::Database
