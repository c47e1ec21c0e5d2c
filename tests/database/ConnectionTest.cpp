// Connection: selecting databases, reaching servers, and what happens when connections break.
#include "database/Connection.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "database/DatabaseTest.h"
#include "local/LocalServer.h"

namespace Tessel::Database {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Direction = Testing::SocketRelay::Direction;

constexpr char s_password[] = "Zx9-hidden";

class ConnectionTest : public DatabaseTest {};

TEST_F(ConnectionTest, ConnectsToTheDefaultServerWithTheDatabaseSelected) {
  Connection connection(s_name);
  EXPECT_EQ(value(connection, "select database()"), s_name);
  EXPECT_THAT(connection.serverVersion(), HasSubstr("MariaDB"));
  EXPECT_EQ(connection.peerAddress().host(), server().socketPath());
}

TEST_F(ConnectionTest, WithoutADatabaseNoneIsSelected) {
  Connection connection("");
  EXPECT_EQ(value(connection, "select coalesce(database(), 'none')"), "none");
}

TEST_F(ConnectionTest, AMissingDatabaseIsAnError) {
  const auto got = caughtError([] { Connection connection("tsl_nowhere"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1049U);
  EXPECT_EQ(got->sqlState(), "42000");
  EXPECT_EQ(got->context(), "Database::Connection");
}

// Connections with the number `id` that the server has: it closes one when it notices its end.
std::string s_openWith(unsigned long id, const std::string& wanted) {
  std::string open;
  for (int i = 0; i < 500 && open != wanted; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(i == 0 ? 0 : 10));
    open = Testing::TestServer::shared()
               .sql("select count(*) from information_schema.processlist where id=" +
                    std::to_string(id))
               .at(0)
               .at(0);
  }
  return open;
}

TEST_F(ConnectionTest, EachIsANewOneAndTheServerClosesItAtItsEnd) {
  unsigned long id = 0;
  {
    Connection connection(s_name);
    id = connection.id();
    EXPECT_EQ(s_openWith(id, "1"), "1");
  }
  EXPECT_EQ(s_openWith(id, "0"), "0");
  EXPECT_NE(Connection(s_name).id(), id);
}

TEST_F(ConnectionTest, WhatASessionHeldIsFreeAndWhatItDidNotCommitIsUndoneAtItsEnd) {
  makeTable();
  {
    Connection connection(s_name);
    run(connection, "select get_lock('tsl_lock', 0)");
    run(connection, "start transaction");
    run(connection, "insert into t(name) values('a')");
  }
  EXPECT_EQ(sql("select get_lock('tsl_lock', 5)").at(0).at(0), "1");
  sql("do release_lock('tsl_lock')");
  sql("insert into tsl_test.t(name) values('a')");
  EXPECT_EQ(count(), "1");
}

TEST_F(ConnectionTest, DbSelectIfExistsTellsMissingDatabasesFromOthers) {
  Connection connection("mysql");
  EXPECT_TRUE(connection.dbSelectIfExists(s_name));
  EXPECT_EQ(value(connection, "select database()"), s_name);
  EXPECT_FALSE(connection.dbSelectIfExists("tsl_nowhere"));
  EXPECT_EQ(value(connection, "select database()"), s_name);
}

TEST_F(ConnectionTest, DbSelectOfAMissingDatabaseIsAnError) {
  Connection connection(s_name);
  const auto got = caughtError([&] { connection.dbSelect("tsl_nowhere"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1049U);
  EXPECT_EQ(got->context(), "Database::Connection::dbSelect");
  EXPECT_EQ(value(connection, "select database()"), s_name);
}

TEST_F(ConnectionTest, ADatabaseWithoutRightsIsAnErrorAndNotMissing) {
  const auto account =
      server().useAccount("limited", s_password, "grant usage on *.* to limited@localhost");
  Connection connection("");
  const auto got = caughtError([&] { static_cast<void>(connection.dbSelectIfExists(s_name)); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1044U);
}

TEST_F(ConnectionTest, DbDeleteDropsADatabaseAndItsTables) {
  makeTable();
  sql("create database `tsl_test_o``dd`");
  Connection connection(s_name);
  connection.dbDelete("tsl_test_o`dd");
  EXPECT_FALSE(connection.dbSelectIfExists("tsl_test_o`dd"));
  connection.dbDelete("tsl_test_o`dd");
  connection.dbDelete(s_name);
  EXPECT_FALSE(connection.dbSelectIfExists(s_name));
}

TEST_F(ConnectionTest, AfterItsDatabaseWasDroppedAConnectionCanStillBeOpenedAgain) {
  Connection connection(s_name);
  connection.dbDelete(s_name);
  sql("kill " + std::to_string(connection.id()));
  EXPECT_FALSE(connection.dbSelectIfExists(s_name));
  EXPECT_EQ(value(connection, "select 1"), "1");
}

TEST_F(ConnectionTest, AUserWithoutRightsIsRefused) {
  const auto account =
      server().useAccount("limited", s_password, "grant select on tsl_test.* to limited@localhost");
  Connection connection(s_name);
  const auto got = caughtError([&] { run(connection, "create table t (a int)"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1142U);
  EXPECT_EQ(got->sqlState(), "42000");
}

TEST_F(ConnectionTest, AnUnreachableServerIsNamedWithUserAndOptionFileButNoPassword) {
  const Testing::TestServer::OptionFile options(
      server(), std::string("[client]\nsocket=/nowhere/s.sock\nuser=somebody\npassword=") +
                    s_password + "\n");
  const auto got = caughtError([] { Connection connection(s_name); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 2002U);
  EXPECT_EQ(got->context(), "Database::Connection");
  EXPECT_STREQ(got->file(), "Handle");
  EXPECT_THAT(got->what(),
              HasSubstr("; server: /nowhere/s.sock; user: somebody; from option file " +
                        options.path() + ", groups [client] and [tsl-address-map] (error "));
  EXPECT_THAT(got->what(), Not(HasSubstr(s_password)));
}

TEST_F(ConnectionTest, AWrongPasswordIsAnErrorThatDoesNotShowIt) {
  const auto account = server().useAccount("limited", s_password, "");
  account.write("[client]\nsocket=" + server().socketPath() +
                "\nuser=limited\npassword=Zx9-wrong\n");
  const auto got = caughtError([] { Connection connection(s_name); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1045U);
  EXPECT_THAT(got->what(), HasSubstr("limited"));
  EXPECT_THAT(got->what(), Not(HasSubstr("Zx9")));
}

TEST_F(ConnectionTest, TheDefaultAddressIsReachedTheDefaultWay) {
  const Testing::SocketRelay relay(server().directory() + "/other.sock", server().socketPath());
  const Testing::TestServer::OptionFile options(
      server(), "[client]\nsocket=" + relay.path() + "\nuser=" + callerName() + "\n");
  const SocketAddress address = Connection::defaultAddress();
  EXPECT_EQ(address, SocketAddress::unixPath(relay.path()));
  EXPECT_EQ(relay.connections(), 1);
  Connection connection(address, s_name);
  EXPECT_EQ(value(connection, "select database()"), s_name);
  // Any other address takes a second one.
  EXPECT_EQ(relay.connections(), 2);
}

TEST_F(ConnectionTest, AMissingDatabaseAtAnAddressIsAnError) {
  const auto got = caughtError([] { Connection c(Connection::defaultAddress(), "tsl_nowhere"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1049U);
}

TEST_F(ConnectionTest, AnotherAddressIsReachedWithTheCredentialsOfTheOptionFile) {
  const Testing::SocketRelay relay(server().directory() + "/other.sock", server().socketPath());
  const auto account =
      server().useAccount("limited", s_password, "grant select on tsl_test.* to limited@localhost");
  Connection connection(SocketAddress::unixPath(relay.path()), s_name);
  EXPECT_EQ(relay.connections(), 1);
  EXPECT_EQ(value(connection, "select current_user()"), "limited@localhost");
  EXPECT_EQ(connection.peerAddress().host(), relay.path());
}

TEST_F(ConnectionTest, AnotherAddressIsReachedEvenWhenTheDefaultServerIsDown) {
  const Testing::TestServer::OptionFile options(
      server(), "[client]\nsocket=/nowhere/s.sock\nuser=" + callerName() + "\n");
  Connection connection(SocketAddress::unixPath(server().socketPath()), s_name);
  EXPECT_EQ(value(connection, "select database()"), s_name);
}

TEST_F(ConnectionTest, AnUnreachableAddressIsNamed) {
  const auto got =
      caughtError([] { Connection connection(SocketAddress::unixPath("/nowhere/x"), s_name); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 2002U);
  EXPECT_THAT(got->what(), HasSubstr("/nowhere/x"));
}

TEST_F(ConnectionTest, AnAddressIsNotLedToAnotherServerByTheOptionFile) {
  const Testing::TestServer::OptionFile options(
      server(), "[client]\nsocket=" + server().socketPath() + "\nuser=" + callerName() +
                    "\nprotocol=socket\n");
  EXPECT_THROW(Connection(SocketAddress::ip("127.0.0.1", 1), s_name), Error);
}

// A free port of the loopback interface.
std::uint16_t s_freePort() {
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  EXPECT_EQ(bind(probe, reinterpret_cast<const sockaddr*>(&address), size), 0);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  close(probe);
  return ntohs(address.sin_port);
}

TEST_F(ConnectionTest, AServerOnTcpIsReachedByItsAddressAndAsTheDefault) {
  const std::uint16_t port = s_freePort();
  LocalServer second(server().directory() + "/tcp");
  LocalServer::Options start;
  start.bufferPool = 64ULL * 1024 * 1024;
  start.durable = false;
  start.arguments = {"--skip-networking=0", "--bind-address=127.0.0.1",
                     "--port=" + std::to_string(port), "--innodb-log-file-size=8M"};
  second.start(start);
  const SocketAddress address = SocketAddress::ip("127.0.0.1", port);
  {
    const Testing::TestServer::OptionFile admin(
        server(), "[client]\nsocket=" + second.socketPath() + "\nuser=" + callerName() + "\n");
    Connection connection("mysql");
    run(connection, std::string("create user net@127.0.0.1 identified by '") + s_password + "'");
    run(connection, "grant all on *.* to net@127.0.0.1");
  }
  {
    const Testing::TestServer::OptionFile options(
        server(),
        std::string("[client]\nuser=net\nhost=127.0.0.1\nport=1\npassword=") + s_password + "\n");
    Connection connection(address, "mysql");
    EXPECT_EQ(connection.peerAddress(), address);
    options.write(std::string("[client]\nuser=net\nhost=127.0.0.1\nport=") + std::to_string(port) +
                  "\npassword=" + s_password + "\n");
    EXPECT_EQ(Connection::defaultAddress(), address);
    // Killed while idle: noticed before the statement is sent, on TCP as well.
    Connection killer("mysql");
    run(killer, "kill " + std::to_string(connection.id()));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(value(connection, "select database()", false), "mysql");
  }
  second.stop();
}

TEST_F(ConnectionTest, AServerThatRestartedBetweenTwoStatementsIsNotNoticed) {
  makeTable();
  Connection connection("mysql");
  connection.dbSelect(s_name);
  run(connection, "insert into t(name) values('a')");
  server().kill();
  server().restart();
  run(connection, "insert into t(name) values('b')", false);
  EXPECT_EQ(value(connection, "select database()"), s_name);
  EXPECT_THAT(value(connection, "select @@sql_mode"), HasSubstr("STRICT_ALL_TABLES"));
}

TEST_F(ConnectionTest, AServerThatIsDownIsAnErrorAndLaterTriedAgain) {
  Connection connection(s_name);
  server().kill();
  auto got = caughtError([&] { run(connection, "select 1"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 2002U);
  EXPECT_FALSE(got->outcomeUnknown());
  got = caughtError([&] { connection.dbSelect(s_name); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 2002U);
  server().restart();
  EXPECT_EQ(value(connection, "select database()"), s_name);
}

TEST_F(ConnectionTest, AnIdleTimeOutIsNotNoticed) {
  Connection connection(s_name);
  run(connection, "set wait_timeout=1");
  const unsigned long before = connection.id();
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(value(connection, "select database()", false), s_name);
  EXPECT_NE(connection.id(), before);
}

TEST_F(ConnectionTest, AKilledConnectionIsNotNoticedBySelectingADatabaseEither) {
  Connection connection("mysql");
  sql("kill " + std::to_string(connection.id()));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  connection.dbSelect(s_name);
  EXPECT_EQ(value(connection, "select database()"), s_name);
  sql("kill " + std::to_string(connection.id()));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(connection.dbSelectIfExists("tsl_nowhere"));
  EXPECT_EQ(value(connection, "select database()"), s_name);
}

TEST_F(ConnectionTest, ADatabaseThatIsGoneWhenTheConnectionIsOpenedAgainIsAnError) {
  Connection connection(s_name);
  sql("drop database tsl_test");
  sql("kill " + std::to_string(connection.id()));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto got = caughtError([&] { run(connection, "select 1"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1049U);
}

TEST_F(ConnectionTest, AConnectionKilledWhileItsStatementRunsHasAnUnknownOutcome) {
  Connection connection(s_name);
  const unsigned long id = connection.id();
  std::thread killer([id] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    Connection admin("mysql");
    run(admin, "kill " + std::to_string(id));
  });
  const auto got = caughtError([&] { run(connection, "do sleep(10)"); });
  killer.join();
  ASSERT_TRUE(got);
  EXPECT_TRUE(got->outcomeUnknown());
}

TEST_F(ConnectionTest, AChildProcessUsesItsCopyWithoutHarmToTheParent) {
  makeTable();
  Connection connection(s_name);
  const unsigned long id = connection.id();
  const int status = statusOfChild([&] {
    if (value(connection, "select database()") != s_name) return 1;
    if (connection.id() == id) return 2;
    run(connection, "insert into t(name) values('child')");
    return 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(connection.id(), id);
  EXPECT_EQ(value(connection, "select name from t"), "child");
}

TEST_F(ConnectionTest, AChildProcessThatDestroysItsCopyDoesNotEndTheParentsConnection) {
  auto connection = std::make_unique<Connection>(s_name);
  const unsigned long id = connection->id();
  EXPECT_EQ(statusOfChild([&] {
              connection.reset();
              return 0;
            }),
            0);
  EXPECT_EQ(value(*connection, "select connection_id()"), std::to_string(id));
}

TEST_F(ConnectionTest, AChildProcessDoesNotContinueTheParentsTransaction) {
  makeTable();
  Connection connection(s_name);
  run(connection, "start transaction");
  run(connection, "insert into t(name) values('a')");
  EXPECT_EQ(statusOfChild([&] {
              try {
                run(connection, "insert into t(name) values('child')");
              } catch (const Error&) {
                return 7;
              }
              return 0;
            }),
            7);
  run(connection, "commit");
  EXPECT_EQ(count(), "1");
}

TEST_F(ConnectionTest, ManyThreadsOpenUseAndCloseConnections) {
  makeTable();
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 25; ++i) {
        Connection connection(s_name);
        const std::string name = std::to_string(t) + "-" + std::to_string(i);
        run(connection, "insert into t(name) values('" + name + "')");
        EXPECT_EQ(value(connection, "select name from t where name='" + name + "'"), name);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count(), "200");
}

class RelayedConnection : public RelayedTest {
 protected:
  // How many bytes `statement` and its answer take on the wire.
  std::size_t bytesOf(Connection& connection, Direction direction, const std::string& statement) {
    const std::size_t before = m_relay.passed(direction);
    run(connection, statement, false);
    return m_relay.passed(direction) - before;
  }
};

TEST_F(RelayedConnection, ASelectCutAnywhereGivesTheRightAnswerOrAnException) {
  makeTable();
  sql("insert into tsl_test.t values('a', 1), ('b', 2), ('c', 3)");
  const std::string statement = "select name, n from t order by name";
  for (const Direction direction : {Direction::ToServer, Direction::ToClient}) {
    Connection measured(s_name);
    const std::size_t size = bytesOf(measured, direction, statement);
    ASSERT_GT(size, 20U);
    for (const bool mayRepeat : {true, false}) {
      int answers = 0;
      for (std::size_t n = 0; n < size; ++n) {
        Connection connection(s_name);
        m_relay.cutAfter(direction, n);
        try {
          EXPECT_THAT(
              run(connection, statement, mayRepeat),
              ElementsAre(ElementsAre("a", "1"), ElementsAre("b", "2"), ElementsAre("c", "3")));
          ++answers;
        } catch (const Error& error) {
          EXPECT_TRUE(error.outcomeUnknown()) << n << ": " << error.what();
        }
        EXPECT_TRUE(m_relay.endCut()) << n;
      }
      EXPECT_EQ(answers, mayRepeat ? static_cast<int>(size) : 0);
    }
  }
}

TEST_F(RelayedConnection, AnInsertCutAnywhereIsReportedTruthfully) {
  makeTable();
  int done = 0;
  for (const Direction direction : {Direction::ToServer, Direction::ToClient}) {
    Connection measured(s_name);
    const std::size_t size = bytesOf(measured, direction, "insert into t(name) values('a')");
    sql("delete from tsl_test.t");
    for (std::size_t n = 0; n < size; ++n) {
      Connection connection(s_name);
      m_relay.cutAfter(direction, n);
      const auto got =
          caughtError([&] { run(connection, "insert into t(name) values('a')", true); });
      ASSERT_TRUE(got) << n;
      EXPECT_TRUE(got->outcomeUnknown()) << n;
      EXPECT_THAT(got->what(), HasSubstr("whether it was carried out is unknown"));
      EXPECT_TRUE(m_relay.endCut());
      // Never more than once; a statement that the server did not get whole is not carried out.
      const std::string rows = count();
      EXPECT_TRUE(rows == "0" || (rows == "1" && direction == Direction::ToClient)) << n;
      if (rows != "0") ++done;
      sql("delete from tsl_test.t");
    }
  }
  EXPECT_GT(done, 0);
}

TEST_F(RelayedConnection, AHarmlessWriteIsSentOnceMoreAndTakesEffect) {
  makeTable();
  const std::string statement =
      "insert into t(name,n) values('a',5) on duplicate key update n=values(n)";
  for (const Direction direction : {Direction::ToServer, Direction::ToClient}) {
    Connection connection(s_name);
    m_relay.cutAfter(direction, 5);
    Testing::GeneralLog log(server());
    run(connection, statement, true);
    EXPECT_TRUE(m_relay.endCut());
    EXPECT_THAT(log.statementsSince(), Contains(statement));
    EXPECT_THAT(sql("select * from tsl_test.t"), ElementsAre(ElementsAre("a", "5")));
    sql("delete from tsl_test.t");
  }
}

TEST_F(RelayedConnection, TheEndOfAConnectionSendsNothingAndWaitsForNothing) {
  auto connection = std::make_unique<Connection>(s_name);
  run(*connection, "select 1");
  const unsigned long id = connection->id();
  const std::size_t before = m_relay.passed(Direction::ToServer);
  m_relay.hold(true);
  const auto start = std::chrono::steady_clock::now();
  connection.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(s_openWith(id, "0"), "0");
  EXPECT_EQ(m_relay.passed(Direction::ToServer), before);
  m_relay.hold(false);
}

TEST_F(RelayedConnection, AConnectCutAnywhereIsAnErrorOrAGoodConnection) {
  const std::size_t before = m_relay.passed(Direction::ToClient);
  { Connection connection(""); }
  const std::size_t size = m_relay.passed(Direction::ToClient) - before;
  for (std::size_t n = 0; n < size; ++n) {
    m_relay.cutAfter(Direction::ToClient, n);
    try {
      Connection connection("");
      m_relay.endCut();
      EXPECT_EQ(value(connection, "select 1"), "1");
    } catch (const Error& error) {
      EXPECT_FALSE(error.outcomeUnknown()) << error.what();
    }
    m_relay.endCut();
  }
}

TEST_F(RelayedConnection, AStatementThatCannotBeSentOnceMoreHasAnUnknownOutcome) {
  makeTable();
  Connection connection(s_name);
  m_relay.cutAfter(Direction::ToClient, 3, true);
  const auto got = caughtError([&] { run(connection, "delete from t where name='a'"); });
  ASSERT_TRUE(got);
  EXPECT_TRUE(got->outcomeUnknown());
  ASSERT_NE(got->cause(), nullptr);
  EXPECT_EQ(got->cause()->context(), "Database::Connection");
  EXPECT_TRUE(m_relay.endCut());
  EXPECT_EQ(value(connection, "select 1"), "1");
}

TEST_F(RelayedConnection, AServerThatDoesNotGreetIsGivenUpOnAfterTheConnectTimeOut) {
  m_options.write("[client]\nsocket=" + relayPath() + "\nuser=" + callerName() +
                  "\n[tsl-address-map]\nconnect-timeout=1\n");
  m_relay.hold(true);
  const auto start = std::chrono::steady_clock::now();
  const auto got = caughtError([] { Connection connection(""); });
  ASSERT_TRUE(got);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
  m_relay.hold(false);
}

}  // namespace
}  // namespace Tessel::Database
