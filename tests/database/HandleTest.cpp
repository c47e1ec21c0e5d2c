// Handle: what every session runs with, whatever option files and servers say.
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
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
  for (const char* round : {"new", "reused"}) {
    Connection connection(s_name);
    EXPECT_EQ(value(connection, "select \"a\\'b\""), "a'b") << round;
    EXPECT_EQ(value(connection, "select @@autocommit"), "1") << round;
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
  for (int i = 0; i < 2; ++i) {
    Connection connection(s_name);
    EXPECT_EQ(value(connection, "select @from_file"), "5");
  }
}

void s_onPipe(int) {}

TEST_F(HandleTest, TheProgramsHandlerForSigpipeStaysInPlace) {
  // The library is set up once for a process, so this needs one that did not use it yet.
  struct sigaction before {};
  sigaction(SIGPIPE, nullptr, &before);
  EXPECT_NE(before.sa_handler, SIG_IGN);
  signal(SIGPIPE, &s_onPipe);
  { Connection connection(""); }
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  EXPECT_EQ(now.sa_handler, &s_onPipe);
  sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(HandleTest, ABrokenConnectionRaisesNoSignal) {
  // The default action would end the child.
  EXPECT_EQ(statusOfChild([] {
              signal(SIGPIPE, SIG_DFL);
              Connection connection(s_name);
              Connection idle(s_name);
              Connection killer(s_name);
              run(killer, "kill " + std::to_string(idle.id()));
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
  DIR* const folder = opendir("/proc/self/fd");
  ASSERT_NE(folder, nullptr);
  while (const dirent* entry = readdir(folder)) {  // NOLINT(concurrency-mt-unsafe): own stream
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
  closedir(folder);
  EXPECT_GT(sockets, 0);
}

}  // namespace
}  // namespace Tessel::Database
