// Handle: what every session runs with, whatever option files and servers say.
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include "database/DatabaseTest.h"
#include "local/LocalServer.h"

namespace Tessel::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class HandleTest : public DatabaseTest {};

TEST_F(HandleTest, ASessionRunsInUtf8AndAStrictModeWithBackslashEscapes) {
  Connection connection(s_name);
  EXPECT_THAT(run(connection,
                  "select @@character_set_client, @@character_set_connection, "
                  "@@character_set_results, @@autocommit"),
              ElementsAre(ElementsAre("utf8mb4", "utf8mb4", "utf8mb4", "1")));
  const std::string mode = value(connection, "select @@sql_mode");
  EXPECT_THAT(mode, HasSubstr("STRICT_ALL_TABLES"));
  EXPECT_THAT(mode, Not(HasSubstr("ANSI_QUOTES")));
  EXPECT_THAT(mode, Not(HasSubstr("NO_BACKSLASH_ESCAPES")));
  EXPECT_EQ(value(connection, "select 'a\\'b'"), "a'b");
}

TEST_F(HandleTest, TheServersOwnModesDoNotCount) {
  sql("set global sql_mode='ANSI_QUOTES,NO_BACKSLASH_ESCAPES'");
  sql("set global autocommit=0");
  {
    Connection connection(s_name);
    EXPECT_EQ(value(connection, "select \"a\\'b\""), "a'b");
    EXPECT_EQ(value(connection, "select @@autocommit"), "1");
  }
  sql("set global autocommit=1");
  sql("set global sql_mode=default");
}

TEST_F(HandleTest, NewDatabasesTellAccentsApartButNotCase) {
  Connection connection("");
  run(connection, "create database tsl_test_new", false);
  connection.dbSelect("tsl_test_new");
  run(connection, "create table t (name varchar(255) unique primary key not null)", false);
  run(connection, "insert into t values('bob@'), ('jose@'), ('jos\xc3\xa9@')", false);
  const auto got = caughtError([&] { run(connection, "insert into t values('BOB@')", false); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1062U);
  EXPECT_EQ(value(connection, "select count(*) from t where name='jos\xc3\xa9@'"), "1");
  EXPECT_EQ(value(connection, "select count(*) from t where name='Bob@'"), "1");
  EXPECT_EQ(value(connection, "select count(*) from t where name='bob@ '"), "0");
  connection.dbDelete("tsl_test_new");
}

TEST_F(HandleTest, ATextTooLongForItsColumnIsAnError) {
  makeTable();
  Connection connection(s_name);
  const auto got = caughtError(
      [&] { run(connection, "insert into t(name) values('" + std::string(60, 'x') + "')"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1406U);
}

TEST_F(HandleTest, AnOptionFileCannotTurnOnWhatMustBeOff) {
  makeTable();
  const std::string secret = server().directory() + "/secret";
  const Testing::TestServer::OptionFile options(
      server(), "[client]\nsocket=" + server().socketPath() + "\nuser=" + callerName() +
                    "\nmulti-statements\nlocal-infile=1\nreconnect\n");
  Connection connection(s_name);
  auto got = caughtError([&] { run(connection, "select 1; select 2"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1064U);
  got = caughtError([&] {
    run(connection, "load data local infile '" + options.path() + "' into table t", false);
  });
  ASSERT_TRUE(got);
  EXPECT_EQ(count(), "0");
  run(connection, "start transaction");
  sql("kill " + std::to_string(connection.id()));
  EXPECT_THROW(run(connection, "insert into t(name) values('a')"), Error);
  EXPECT_EQ(count(), "0");
}

TEST_F(HandleTest, AnInitCommandOfTheOptionFileHoldsForEveryConnection) {
  const Testing::TestServer::OptionFile options(
      server(), "[client]\nsocket=" + server().socketPath() + "\nuser=" + callerName() +
                    "\ninit-command=\"set @from_file=5\"\n");
  Connection connection(s_name);
  EXPECT_EQ(value(connection, "select @from_file"), "5");
}

std::atomic<int> s_pipeSignals{0};

void s_onPipe(int) {
  ++s_pipeSignals;
}

bool s_handlerStays() {
  signal(SIGPIPE, &s_onPipe);
  try {
    Connection connection(SocketAddress::unixPath("/nowhere/s.sock"), "");
  } catch (const Error&) {
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    return now.sa_handler == &s_onPipe;
  }
  return false;
}

TEST(HandleInANewProcess, TheProgramsHandlerForSigpipeStaysInPlace) {
  // The client library is set up once for a process: this one may have done so, a new one has not.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(s_handlerStays() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// Older than what the libraries register for process exit, so destroyed behind that.
std::unique_ptr<Connection> s_longLived;

// Leaves a connection to the destructors of static objects, and exits.
int s_exitWithConnection() {
  s_longLived = std::make_unique<Connection>("mysql");
  run(*s_longLived, "select 1");
  std::exit(3);  // NOLINT(concurrency-mt-unsafe): the child has one thread
}

TEST_F(HandleTest, AConnectionMayBeDestroyedWithTheStaticObjects) {
  EXPECT_EQ(statusOfChild(&s_exitWithConnection), 3);
}

// A second server, one that speaks TLS, behind a relay.
class TlsTest : public DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    const std::string make =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=test -out " + m_certificate +
        " -keyout " + m_key + " 2>/dev/null";
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): one thread; the words are ours
    ASSERT_EQ(std::system(make.c_str()), 0) << make;
    LocalServer::Options start;
    start.bufferPool = 64ULL * 1024 * 1024;
    start.durable = false;
    start.arguments = {"--innodb-log-file-size=8M", "--ssl-cert=" + m_certificate,
                       "--ssl-key=" + m_key};
    m_server.start(start);
    m_relay = std::make_unique<Testing::SocketRelay>(server().directory() + "/tls.sock",
                                                     m_server.socketPath());
    m_options = std::make_unique<Testing::TestServer::OptionFile>(
        server(), "[client]\nsocket=" + m_relay->path() + "\nuser=" + callerName() +
                      "\nssl-ca=" + m_certificate + "\n");
  }
  void TearDown() override { m_server.stop(); }

  std::string m_certificate = server().directory() + "/certificate.pem";
  std::string m_key = server().directory() + "/key.pem";
  LocalServer m_server{server().directory() + "/tls"};
  std::unique_ptr<Testing::SocketRelay> m_relay;
  std::unique_ptr<Testing::TestServer::OptionFile> m_options;
};

TEST_F(TlsTest, AnEncryptedConnectionEndsAsQuietlyAsAnyOther) {
  // In a child of its own, which has used TLS not yet.
  EXPECT_EQ(statusOfChild(&s_exitWithConnection), 3);

  signal(SIGPIPE, &s_onPipe);
  auto connection = std::make_unique<Connection>("mysql");
  EXPECT_THAT(run(*connection, "show status like 'Ssl_cipher'").at(0).at(1), Not(IsEmpty()));
  EXPECT_EQ(statusOfChild([&connection] {
              connection.reset();
              return 0;
            }),
            0);
  run(*connection, "select 1", false);
  Connection direct(SocketAddress::unixPath(m_server.socketPath()), "mysql");
  const std::string find =
      "select 1 from information_schema.processlist where id=" + std::to_string(connection->id());
  ASSERT_EQ(run(direct, find).size(), 1U);

  const auto toServer = Testing::SocketRelay::Direction::ToServer;
  const std::size_t before = m_relay->passed(toServer);
  m_relay->hold(true);
  const auto start = std::chrono::steady_clock::now();
  connection.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  for (int i = 0; i < 500 && !run(direct, find).empty(); ++i) usleep(10000);
  EXPECT_THAT(run(direct, find), IsEmpty());
  EXPECT_EQ(m_relay->passed(toServer), before);
  EXPECT_EQ(s_pipeSignals, 0);
  signal(SIGPIPE, SIG_DFL);
}

TEST_F(TlsTest, ABreakWhileEncryptionIsAgreedOnRaisesNoSignal) {
  // The client's wish to encrypt, before it says anything encrypted.
  constexpr std::size_t s_wish = 36;
  signal(SIGPIPE, &s_onPipe);
  s_pipeSignals = 0;
  for (int i = 0; i < 20; ++i) {
    m_relay->cutAfter(Testing::SocketRelay::Direction::ToServer, s_wish);
    EXPECT_THROW(Connection("mysql"), Error);
    EXPECT_TRUE(m_relay->endCut());
  }
  EXPECT_EQ(s_pipeSignals, 0);
  signal(SIGPIPE, SIG_DFL);
}

TEST_F(HandleTest, ABrokenConnectionRaisesNoSignal) {
  // The default action would end the child.
  EXPECT_EQ(statusOfChild([] {
              signal(SIGPIPE, SIG_DFL);
              Connection connection(s_name);
              Connection killed(s_name);
              Connection killer(s_name);
              run(killer, "kill " + std::to_string(killed.id()));
              // Its parent alone can collect it.
              ::kill(server().pid(), SIGKILL);
              usleep(100000);
              try {
                run(connection, "select 1");
              } catch (const Error&) {
                return 5;
              }
              return 0;
            }),
            5);
}

TEST_F(HandleTest, ProgramsThatAreStartedDoNotInheritTheSocket) {
  Connection connection(s_name);
  int sockets = 0;
  DIR* const directory = opendir("/proc/self/fd");
  ASSERT_NE(directory, nullptr);
  while (const dirent* entry = readdir(directory)) {  // NOLINT(concurrency-mt-unsafe): own stream
    const int number = std::atoi(entry->d_name);  // NOLINT(cert-err34-c): names are numbers or dots
    char target[64] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof(target) - 1) <= 0) continue;
    if (std::string(target).rfind("socket:", 0) != 0) continue;
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    if (getpeername(number, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
    ++sockets;
    EXPECT_NE(fcntl(number, F_GETFD) & FD_CLOEXEC, 0);
  }
  closedir(directory);
  EXPECT_GT(sockets, 0);
}

}  // namespace
}  // namespace Tessel::Database
