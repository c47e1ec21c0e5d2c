// LocalServer: its directory, first set-up, start and stop, and what crashes leave behind.
#include "local/LocalServer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/Connection.h"
#include "database/Query.h"
#include "local/ServerProcess.h"
#include "support/Caught.h"

namespace Tessel {
namespace {

namespace fs = std::filesystem;
using Testing::caught;
using testing::HasSubstr;

LocalServer::Options s_small() {
  LocalServer::Options options;
  options.bufferPool = 64ULL * 1024 * 1024;
  options.durable = false;
  options.arguments = {"--innodb-log-file-size=8M"};
  return options;
}

void s_setEnvironment(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): no other threads at that time
}

std::string s_environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): as above
  return value != nullptr ? value : "";
}

// Sets a variable of the environment as long as it lives.
class Variable {
 public:
  Variable(const char* name, const std::string& value)
      : m_name(name), m_before(s_environment(name)) {
    s_setEnvironment(name, value);
  }
  ~Variable() { s_setEnvironment(m_name, m_before); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* m_name;
  std::string m_before;
};

class LocalServerTest : public testing::Test {
 protected:
  void SetUp() override {
    m_directory = "/tmp/tsl-local-XXXXXX";
    ASSERT_NE(mkdtemp(m_directory.data()), nullptr);
  }
  void TearDown() override {
    for (const std::string& directory : m_started) killServer(LocalServer(directory));
    fs::remove_all(m_directory);
  }

  // A server whose end this test takes care of.
  LocalServer make(const std::string& name = "server") {
    m_started.push_back(m_directory + "/" + name);
    return LocalServer(m_started.back());
  }
  static void killServer(const LocalServer& server) {
    const pid_t number = server.pid();
    if (number == 0) return;
    kill(number, SIGKILL);
    while (!hasEnded(number)) usleep(1000);
  }
  static std::string read(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }
  static unsigned int modeOf(const std::string& path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return status.st_mode & 07777U;
  }
  static void execute(const LocalServer& server, const std::string& statement) {
    const Variable options("TSL_DATABASE_OPTION_FILE", server.optionFile());
    Database::Connection connection("mysql");
    Database::Query query(connection, nullptr, false);
    query << statement;
    query.execute();
  }
  std::string m_directory;
  std::vector<std::string> m_started;
};

TEST_F(LocalServerTest, TheFirstStartMakesAServerThatOnlyItsOwnerReaches) {
  LocalServer server = make();
  EXPECT_FALSE(server.isRunning());
  EXPECT_EQ(server.pid(), 0);
  EXPECT_TRUE(server.start(s_small()));
  EXPECT_TRUE(server.isRunning());
  EXPECT_EQ(modeOf(server.directory()), 0700U);
  EXPECT_EQ(modeOf(fs::path(server.socketPath()).parent_path()), 0700U);
  EXPECT_EQ(modeOf(server.optionFile()), 0600U);
  EXPECT_TRUE(fs::is_directory(server.cmfDirectory()));
  EXPECT_THAT(read(server.optionFile()), HasSubstr(server.socketPath()));
  execute(server, "create database kept");
  EXPECT_TRUE(server.stop());
  EXPECT_FALSE(server.isRunning());
  EXPECT_FALSE(server.stop());
  EXPECT_TRUE(server.start(s_small()));
  execute(server, "create table kept.t (a int)");
}

TEST_F(LocalServerTest, StartingARunningOneChangesNothing) {
  LocalServer server = make();
  server.start(s_small());
  const pid_t before = server.pid();
  EXPECT_FALSE(server.start(s_small()));
  EXPECT_FALSE(LocalServer(server.directory() + "/").start());
  EXPECT_EQ(server.pid(), before);
}

TEST_F(LocalServerTest, TheServerListensOnNoNetworkPortAndIsDurable) {
  LocalServer server = make();
  LocalServer::Options options = s_small();
  options.durable = true;
  server.start(options);
  execute(server,
          "create table mysql.tsl_check as select @@skip_networking n, "
          "@@innodb_flush_log_at_trx_commit f, @@innodb_doublewrite d");
  execute(server,
          "insert into mysql.tsl_check select 1/(n=1 and f=1 and d=1), 1, 1 from "
          "mysql.tsl_check");
}

TEST_F(LocalServerTest, ManyStartsAtOnceMakeOneServer) {
  make();
  const std::string directory = m_started.back();
  std::atomic<int> started{0};
  std::vector<pid_t> children;
  for (int i = 0; i < 4; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      try {
        _exit(LocalServer(directory).start(s_small()) ? 1 : 0);
      } catch (const Exception& thrown) {
        std::cerr << thrown.stringParameter() << std::endl;
        _exit(2);
      }
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_NE(WEXITSTATUS(status), 2);
    started += WEXITSTATUS(status);
  }
  EXPECT_EQ(started, 1);
  EXPECT_TRUE(LocalServer(directory).isRunning());
}

TEST_F(LocalServerTest, ACrashLeavesNothingThatKeepsItFromStarting) {
  LocalServer server = make();
  server.start(s_small());
  execute(server, "create database kept");
  killServer(server);
  EXPECT_FALSE(server.isRunning());
  EXPECT_TRUE(fs::exists(server.socketPath()));
  EXPECT_FALSE(server.stop());
  EXPECT_TRUE(server.start(s_small()));
  execute(server, "drop database kept");
}

TEST_F(LocalServerTest, AProcessNumberThatBelongsToAnotherProgramIsNotOurs) {
  LocalServer server = make();
  server.start(s_small());
  server.stop();
  const pid_t stranger = fork();
  if (stranger == 0) {
    pause();
    _exit(0);
  }
  std::ofstream(server.directory() + "/run/mariadbd.pid") << stranger << "\n";
  EXPECT_FALSE(server.isRunning());
  EXPECT_FALSE(server.stop());
  EXPECT_EQ(kill(stranger, 0), 0);
  EXPECT_TRUE(server.start(s_small()));
  kill(stranger, SIGKILL);
  waitpid(stranger, nullptr, 0);
}

TEST_F(LocalServerTest, AnInterruptedFirstSetUpIsBegunAnew) {
  LocalServer server = make();
  fs::create_directories(server.dataDirectory() + ".new/mysql");
  std::ofstream(server.dataDirectory() + ".new/ibdata1") << "half";
  std::ofstream(server.directory() + "/lock") << "";
  EXPECT_TRUE(server.start(s_small()));
  EXPECT_FALSE(fs::exists(server.dataDirectory() + ".new"));
}

// How many links in `parent` lead to `directory` or below it.
int s_linksTo(const fs::path& directory, const fs::path& parent) {
  int count = 0;
  std::error_code ignored;  // Directories of others, and processes that end meanwhile.
  for (const auto& entry : fs::directory_iterator(parent, ignored)) {
    const std::string target = fs::read_symlink(entry.path(), ignored).string();
    count += target.starts_with(directory.string()) ? 1 : 0;
  }
  return count;
}

// How many other processes have files of `directory` open.
int s_usersOf(const std::string& directory) {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    if (entry.path().filename() == std::to_string(getpid())) continue;
    count += s_linksTo(directory, entry.path() / "fd") > 0 ? 1 : 0;
  }
  return count;
}

TEST_F(LocalServerTest, AStartThatIsKilledTakesItsSetUpWithIt) {
  LocalServer server = make();
  const pid_t child = fork();
  if (child == 0) {
    server.start(s_small());
    _exit(0);
  }
  // The set-up writes its files by now.
  const std::string fresh = server.dataDirectory() + ".new";
  for (int i = 0; i < 2000 && !fs::exists(fresh + "/ibdata1"); ++i) usleep(5000);
  ASSERT_GT(s_usersOf(fresh), 0);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    EXPECT_EQ(s_linksTo(server.directory(), entry.path()), 0) << entry.path();
  }
  // Who gets the lock may use the directory.
  const int lock = open((server.directory() + "/lock").c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(flock(lock, LOCK_EX), 0);
  for (int i = 0; i < 20 && s_usersOf(server.dataDirectory()) > 0; ++i) usleep(10000);
  EXPECT_EQ(s_usersOf(server.dataDirectory()), 0);
  close(lock);
  EXPECT_TRUE(server.start(s_small()));
  EXPECT_FALSE(fs::exists(fresh));
  execute(server, "create database kept");
}

TEST_F(LocalServerTest, ALongDirectoryNameGetsItsSocketElsewhere) {
  LocalServer server = make(std::string(120, 'x'));
  EXPECT_EQ(server.socketPath(), "");
  server.start(s_small());
  const fs::path directory = fs::path(server.socketPath()).parent_path();
  EXPECT_LE(server.socketPath().size(), 107U);
  EXPECT_EQ(modeOf(directory), 0700U);
  execute(server, "select 1");
  // A restart of the machine empties /tmp.
  killServer(server);
  fs::remove_all(directory);
  EXPECT_TRUE(server.start(s_small()));
  execute(server, "select 1");
  const fs::path second = fs::path(server.socketPath()).parent_path();
  EXPECT_TRUE(server.stop());
  EXPECT_FALSE(fs::exists(second));
}

TEST_F(LocalServerTest, DirectoryNamesMayHoldBlanksAndNumberSigns) {
  LocalServer server = make("my server #1; x");
  server.start(s_small());
  execute(server, "select 1");
  EXPECT_TRUE(server.stop());
}

TEST_F(LocalServerTest, DirectoryNamesThatAnOptionFileCannotHoldAreRefused) {
  for (const char* name : {"", "a\"b", "a'b", "a\\b", "a\nb"}) {
    EXPECT_EQ(caught([name] { LocalServer server(name); }).code(), 4) << name;
  }
}

TEST_F(LocalServerTest, ADirectoryInUseForSomethingElseIsLeftAlone) {
  fs::create_directory(m_directory + "/home");
  std::ofstream(m_directory + "/home/letter") << "x";
  chmod((m_directory + "/home").c_str(), 0755);
  LocalServer server(m_directory + "/home");
  EXPECT_THAT(caught([&] { server.start(s_small()); }).stringParameter(),
              HasSubstr("is in use for something else"));
  EXPECT_EQ(modeOf(m_directory + "/home"), 0755U);
  EXPECT_FALSE(server.stop());
}

TEST_F(LocalServerTest, AServerThatEndsWhileItStartsIsReportedWithItsLog) {
  LocalServer server = make();
  server.start(s_small());
  server.stop();
  LocalServer::Options options = s_small();
  options.arguments.emplace_back("--no-such-option=1");
  const Exception got = caught([&] { server.start(options); });
  EXPECT_EQ(got.context(), "LocalServer::start");
  EXPECT_EQ(got.code(), 4);
  EXPECT_THAT(got.stringParameter(), HasSubstr("ended while it started"));
  EXPECT_THAT(got.stringParameter(), HasSubstr("no-such-option"));
  EXPECT_FALSE(server.isRunning());
}

TEST_F(LocalServerTest, AFailedFirstSetUpIsReportedWithItsLog) {
  LocalServer server = make();
  LocalServer::Options options;
  options.arguments = {"--innodb-no-such-option=1"};
  const Exception got = caught([&] { server.start(options); });
  EXPECT_THAT(got.stringParameter(), HasSubstr("Setting up the data files ended with status"));
  EXPECT_FALSE(fs::exists(server.dataDirectory()));
  EXPECT_TRUE(server.start(s_small()));
}

TEST_F(LocalServerTest, AMissingProgramIsReportedWithThePackageToInstall) {
  const Exception got = caught([] { findServerProgram({"tsl-no-such-program"}); });
  EXPECT_THAT(got.stringParameter(), HasSubstr("mariadb-server-core"));
  EXPECT_THAT(caught([] { findServerProgram({"tsl-no-such-program"}, "rsync"); }).stringParameter(),
              HasSubstr("install the Debian package rsync"));
}

TEST_F(LocalServerTest, WorkInAChildThatIsAnotherUserReportsItsFailure) {
  const Account account = geteuid() == 0 ? Account{65534, 65534} : Account{geteuid(), getegid()};
  runAs(account, [] {});
  const Exception got = caught([&] {
    runAs(account, [] {
      throw Exception(
          Exception("", 4, "", 1)
              .stringParameter(std::to_string(getuid()) + "," + std::to_string(getegid())));
    });
  });
  EXPECT_EQ(got.stringParameter(),
            std::to_string(account.user) + "," + std::to_string(account.group));
  EXPECT_EQ(caught([&] { runAs(account, [] { raise(SIGKILL); }); }).stringParameter(),
            "A child process was killed");
}

TEST_F(LocalServerTest, ASuspendedServerStopsToo) {
  LocalServer server = make();
  server.start(s_small());
  kill(server.pid(), SIGSTOP);
  EXPECT_TRUE(server.stop());
}

TEST_F(LocalServerTest, TheDefaultDirectoryFollowsTheEnvironment) {
  const Variable home("HOME", "/home/somebody");
  {
    const Variable state("XDG_STATE_HOME", "/var/state");
    EXPECT_EQ(LocalServer::defaultDirectory(), "/var/state/tsl-address-map");
  }
  for (const char* unusable : {"", "relative"}) {
    const Variable state("XDG_STATE_HOME", unusable);
    EXPECT_EQ(LocalServer::defaultDirectory(), "/home/somebody/.local/state/tsl-address-map");
  }
}

TEST_F(LocalServerTest, TheServerOutlivesTheProcessThatStartedIt) {
  make();
  const std::string directory = m_started.back();
  const pid_t child = fork();
  if (child == 0) {
    LocalServer(directory).start(s_small());
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  LocalServer server(directory);
  EXPECT_TRUE(server.isRunning());
  EXPECT_TRUE(server.stop());
}

TEST_F(LocalServerTest, ASocketWithoutAServerBehindItDoesNotGreet) {
  const std::string path = m_directory + "/s.sock";
  EXPECT_FALSE(greets(path, 10));
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  listen(listener, 1);
  EXPECT_FALSE(greets(path, 10));
  close(listener);
}

}  // namespace
}  // namespace Tessel
