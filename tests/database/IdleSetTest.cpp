// IdleSet: which connections are used again, and that nothing of their past is left.
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

class IdleSetTest : public DatabaseTest {
 protected:
  // Number of the connection that a short use was on.
  static unsigned long use(const std::string& statement = "select 1") {
    Connection connection(s_name);
    run(connection, statement, false);
    return connection.id();
  }
};

TEST_F(IdleSetTest, AConnectionIsUsedAgain) {
  const unsigned long id = use();
  EXPECT_EQ(use(), id);
  Connection connection("mysql");
  EXPECT_EQ(connection.id(), id);
  EXPECT_EQ(value(connection, "select database()"), "mysql");
}

TEST_F(IdleSetTest, OneInUseIsNeverShared) {
  Connection first(s_name);
  Connection second(s_name);
  EXPECT_NE(first.id(), second.id());
}

TEST_F(IdleSetTest, NothingOfASessionIsLeftForTheNextUser) {
  unsigned long id = 0;
  {
    Connection connection(s_name);
    id = connection.id();
    run(connection, "set @mine=1");
    run(connection, "set sql_mode='ANSI_QUOTES', autocommit=0");
    run(connection, "set names latin1");
    run(connection, "create temporary table gone (a int)", false);
  }
  Connection connection(s_name);
  EXPECT_EQ(connection.id(), id);
  EXPECT_EQ(value(connection, "select coalesce(@mine, 'none')"), "none");
  EXPECT_EQ(value(connection, "select \"text\""), "text");
  EXPECT_EQ(value(connection, "select @@autocommit"), "1");
  EXPECT_EQ(value(connection, "select @@character_set_client"), "utf8mb4");
  const auto got = caughtError([&] { run(connection, "select * from gone"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1146U);
}

TEST_F(IdleSetTest, LocksAreReleasedAtOnceAndNotAtTheNextUse) {
  makeTable();
  {
    Connection connection(s_name);
    run(connection, "select get_lock('tsl_lock', 0)");
    run(connection, "lock tables t write");
  }
  EXPECT_EQ(sql("select get_lock('tsl_lock', 0)").at(0).at(0), "1");
  sql("do release_lock('tsl_lock')");
  sql("insert into tsl_test.t(name) values('free')");
}

TEST_F(IdleSetTest, AnOpenTransactionIsUndoneAndItsConnectionClosed) {
  makeTable();
  unsigned long id = 0;
  {
    Connection connection(s_name);
    id = connection.id();
    run(connection, "start transaction");
    run(connection, "insert into t(name) values('a')");
  }
  Connection connection(s_name);
  EXPECT_NE(connection.id(), id);
  EXPECT_EQ(value(connection, "select count(*) from t"), "0");
}

TEST_F(IdleSetTest, ADeadConnectionIsNotHandedOut) {
  const unsigned long id = use();
  sql("kill " + std::to_string(id));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_NE(use(), id);
}

TEST_F(IdleSetTest, AfterTheServerRestartedConnectionsAreNew) {
  use();
  server().kill();
  server().restart();
  Connection connection(s_name);
  EXPECT_EQ(value(connection, "select database()", false), s_name);
}

TEST_F(IdleSetTest, AtMostEightAreKept) {
  // What other tests left must not take room.
  std::this_thread::sleep_for(std::chrono::milliseconds(5100));
  {
    std::vector<std::unique_ptr<Connection>> many;
    many.reserve(12);
    for (int i = 0; i < 12; ++i) many.push_back(std::make_unique<Connection>(s_name));
  }
  // The last goodbyes are on their way.
  std::string idle;
  for (int i = 0; i < 100; ++i) {
    // Those of this test and the one that asks.
    idle =
        sql("select count(*) from information_schema.processlist where user='" + callerName() + "'")
            .at(0)
            .at(0);
    if (idle == "9") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(idle, "9");
}

TEST_F(IdleSetTest, AConnectionIsNotUsedAgainAfterFiveSeconds) {
  const unsigned long id = use();
  std::this_thread::sleep_for(std::chrono::milliseconds(5200));
  EXPECT_NE(use(), id);
}

TEST_F(IdleSetTest, AChangedOptionFileCallsForANewConnection) {
  const std::string text =
      "[client]\nsocket=" + server().socketPath() + "\nuser=" + callerName() + "\n";
  const Testing::TestServer::OptionFile options(server(), text);
  const unsigned long id = use();
  EXPECT_EQ(use(), id);
  options.write(text + "# changed\n");
  EXPECT_NE(use(), id);
}

TEST_F(IdleSetTest, AnotherAccountDoesNotGetTheConnection) {
  use();
  const auto account =
      server().useAccount("limited", "secret", "grant select on tsl_test.* to limited@localhost");
  Connection connection(s_name);
  EXPECT_EQ(value(connection, "select current_user()"), "limited@localhost");
}

TEST_F(IdleSetTest, AChildProcessStartsWithoutAnyAndLeavesTheParentsAlone) {
  const unsigned long id = use();
  EXPECT_EQ(statusOfChild([&] {
              if (use() == id) return 1;
              return use() == id ? 2 : 0;
            }),
            0);
  EXPECT_EQ(use(), id);
}

// What a child of a process with threads does. The C library's allocator works there; those of the
// sanitizers may be left locked by a thread that the child does not have.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
int s_childOfThreads(unsigned long) {
  // Past the sanitizer's own look at its threads, which are the parent's.
  return static_cast<int>(syscall(SYS_exit_group, 0));
}
#else
int s_childOfThreads(unsigned long id) {
  Connection connection("tsl_test");
  run(connection, "select 1");
  return connection.id() == id ? 1 : 0;
}
#endif

TEST_F(IdleSetTest, AForkWhileOtherThreadsUseTheSetHarmsNobody) {
  std::vector<std::thread> threads;
  threads.reserve(3);
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 60; ++i) use();
    });
  }
  for (int i = 0; i < 10; ++i) {
    const unsigned long id = use();
    EXPECT_EQ(statusOfChild([id] { return s_childOfThreads(id); }), 0);
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(IdleSetTest, IdleConnectionsSayGoodbyeAtProcessExit) {
  Testing::GeneralLog log(server());
  const int status = statusOfChild([] {
    use();
    std::exit(0);  // NOLINT(concurrency-mt-unsafe): the child has one thread
    return 0;
  });
  EXPECT_EQ(status, 0);
  bool quit = false;
  for (int i = 0; i < 100 && !quit; ++i) {
    for (const auto& entry : log.entriesSince()) quit = quit || entry.command == "Quit";
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(quit);
}

// Lives longer than the set of idle connections: made before it, destroyed after it.
std::unique_ptr<Connection>& s_longLived() {
  static std::unique_ptr<Connection> s_connection;
  return s_connection;
}

TEST_F(IdleSetTest, AStaticConnectionMayGoAfterTheSet) {
  EXPECT_EQ(statusOfChild([] {
              s_longLived() = std::make_unique<Connection>(s_name);
              run(*s_longLived(), "select 1");
              std::exit(3);  // NOLINT(concurrency-mt-unsafe): the child has one thread
              return 0;
            }),
            3);
}

}  // namespace
}  // namespace Tessel::Database
