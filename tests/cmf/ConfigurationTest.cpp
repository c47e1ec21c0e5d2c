// The helpers of the configuration's tests, and the proof that those that can fail do fail.
#include "cmf/ConfigurationTest.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest-spi.h>
#include <lmdb.h>

#include "cmf/ApsGwServerCache.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {

namespace {

// Any user without rights of his own; no name service is asked.
constexpr uid_t s_nobody = 65534;

void s_require(bool good, const std::string& what) {
  if (!good) throw std::runtime_error(what);
}

int s_run(const std::function<void()>& body) {
  try {
    body();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "child: %s\n", e.what());
    return 2;
  }
  return testing::Test::HasFailure() ? 1 : 0;
}

void s_dropPrivileges() {
  if (::geteuid() != 0) return;
  s_require(::setgroups(0, nullptr) == 0, "setgroups");
  s_require(::setresgid(s_nobody, s_nobody, s_nobody) == 0, "setresgid");
  s_require(::setresuid(s_nobody, s_nobody, s_nobody) == 0, "setresuid");
}

std::unique_ptr<MDB_env, decltype(&mdb_env_close)> s_openRaw(const std::string& path) {
  MDB_env* env = nullptr;
  s_require(mdb_env_create(&env) == 0, "mdb_env_create");
  std::unique_ptr<MDB_env, decltype(&mdb_env_close)> owner(env, &mdb_env_close);
  const int result = mdb_env_open(env, path.c_str(), MDB_NOTLS, 0660);
  s_require(result == 0, std::string("mdb_env_open: ") + mdb_strerror(result));
  return owner;
}

int s_appendText(const char* text, void* all) {
  *static_cast<std::string*>(all) += text;
  return 0;
}

}  // namespace

ConfigurationTest::ConfigurationTest() {
  std::string directory = testing::TempDir() + "tsl-cmf-XXXXXX";
  s_require(::mkdtemp(directory.data()) != nullptr, "mkdtemp");
  // Open for the tests that give up their rights.
  s_require(::chmod(directory.c_str(), 0777) == 0, "chmod");
  m_directory = directory;
  setVariable("TSL_CMF_PATH", path());
}

ConfigurationTest::~ConfigurationTest() {
  setVariable("TSL_CMF_PATH", "");
  setVariable("TSL_CMF_MAP_MIB", "");
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

void setVariable(const char* name, const std::string& value) {
  // Tests change their environment while they have one thread only.
  if (value.empty()) {
    ::unsetenv(name);  // NOLINT(concurrency-mt-unsafe): see above
  } else {
    ::setenv(name, value.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): see above
  }
}

Child::Child(const std::function<void()>& body) {
  std::fflush(nullptr);
  m_pid = ::fork();
  s_require(m_pid >= 0, "fork");
  if (m_pid == 0) {
    // A test that is interrupted leaves no process behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int status = s_run(body);
    std::fflush(nullptr);
    ::_exit(status);
  }
}

Child::~Child() {
  if (m_pid > 0) kill();
}

void Child::kill() {
  ::kill(m_pid, SIGKILL);
  wait();
}

int Child::wait() {
  int status = 0;
  pid_t ended = -1;
  do {
    ended = ::waitpid(m_pid, &status, 0);
  } while (ended < 0 && errno == EINTR);
  s_require(ended == m_pid, "waitpid");
  m_pid = 0;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

int inChild(const std::function<void()>& body) {
  return Child(body).wait();
}

int inChildWithoutPrivileges(const std::function<void()>& body) {
  return inChild([&] {
    s_dropPrivileges();
    body();
  });
}

Signal::Signal() : m_ends{-1, -1} {
  s_require(::pipe2(m_ends, O_CLOEXEC) == 0, "pipe2");
}

Signal::~Signal() {
  ::close(m_ends[0]);
  ::close(m_ends[1]);
}

void Signal::send() const {
  s_require(::write(m_ends[1], "!", 1) == 1, "write");
}

void Signal::await() const {
  char byte = 0;
  s_require(::read(m_ends[0], &byte, 1) == 1, "read");
}

std::uint32_t addDomain(const std::string& domain, const std::vector<std::string>& users) {
  Writer writer;
  const std::uint32_t id = writer.addDomain(domain).id;
  for (const std::string& user : users) writer.addUser(domain, user, MailUserMailbox);
  writer.commit();
  return id;
}

std::vector<std::string> manyUsers(int count) {
  std::vector<std::string> users;
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    users.push_back("user" + std::string(7 - number.size(), '0') + number);
  }
  return users;
}

std::vector<std::string> usersOf(std::uint32_t domainId) {
  std::vector<std::string> users;
  const UserQuery query(domainId);
  for (const __aps_mail_user& user : query) users.emplace_back(user.user_name);
  return users;
}

std::vector<std::string> usersOf(const std::string& domain) {
  const RefApsGwServer server = RefApsGwServerCache::instance(false)->find(domain);
  s_require(!server.isNull(), "No domain " + domain);
  return usersOf(server->domainId());
}

void putRaw(const std::string& path, const std::string& key, const std::string& value) {
  const int status = inChild([&] {
    const auto env = s_openRaw(path);
    MDB_txn* txn = nullptr;
    s_require(mdb_txn_begin(env.get(), nullptr, 0, &txn) == 0, "mdb_txn_begin");
    MDB_dbi records = 0;
    s_require(mdb_dbi_open(txn, nullptr, 0, &records) == 0, "mdb_dbi_open");
    MDB_val name{key.size(), const_cast<char*>(key.data())};
    MDB_val data{value.size(), const_cast<char*>(value.data())};
    s_require(mdb_put(txn, records, &name, &data, 0) == 0, "mdb_put");
    s_require(mdb_txn_commit(txn) == 0, "mdb_txn_commit");
  });
  s_require(status == 0, "Cannot store a raw record");
}

std::vector<pid_t> readers(const std::string& path) {
  // From a child: this process may have the environment open.
  const std::string file = path + ".readers";
  const int status = inChild([&] {
    const auto env = s_openRaw(path);
    std::string table;
    mdb_reader_list(env.get(), &s_appendText, &table);
    std::FILE* out = std::fopen(file.c_str(), "w");
    s_require(out != nullptr, "fopen");
    std::fputs(table.c_str(), out);
    std::fclose(out);
  });
  s_require(status == 0, "Cannot list the readers");
  std::string table;
  {
    std::unique_ptr<std::FILE, decltype(&std::fclose)> in(std::fopen(file.c_str(), "r"),
                                                          &std::fclose);
    for (int c = std::fgetc(in.get()); c != EOF; c = std::fgetc(in.get())) {
      table += static_cast<char>(c);
    }
  }
  ::unlink(file.c_str());
  // A heading, then one line per reader that starts with its process number.
  std::vector<pid_t> pids;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    const long pid = std::strtol(line.c_str(), nullptr, 10);
    if (pid > 0) pids.push_back(static_cast<pid_t>(pid));
  }
  return pids;
}

std::string text(const Key& key) {
  return {key.data(), key.size()};
}

std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Exception& e) {
    EXPECT_EQ(e.code(), 4);
    EXPECT_THAT(e.file(),
                testing::AnyOf(testing::StrEq("ApsGwServerCache"), testing::StrEq("Environment"),
                               testing::StrEq("EnvironmentFiles"), testing::StrEq("Snapshot"),
                               testing::StrEq("TableQuery"), testing::StrEq("Writer"),
                               testing::StrEq("cmf_query")));
    EXPECT_GT(e.line(), 1);
    EXPECT_FALSE(e.context().empty());
    return e.stringParameter();
  }
  ADD_FAILURE() << "No Exception";
  return {};
}

namespace {

TEST(ConfigurationHelper, AChildReportsSuccessFailureExceptionAndSignal) {
  EXPECT_EQ(inChild([] {}), 0);
  EXPECT_EQ(inChild([] { EXPECT_EQ(1, 2) << "wanted, in a child"; }), 1);
  EXPECT_EQ(inChild([] { throw std::runtime_error("wanted"); }), 2);
  EXPECT_EQ(inChild([] { ::raise(SIGKILL); }), -SIGKILL);
}

TEST(ConfigurationHelper, WithoutPrivilegesAProtectedFileIsOutOfReach) {
  const std::string file = testing::TempDir() + "tsl-cmf-" + std::to_string(::getpid());
  const int descriptor = ::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0);
  ASSERT_GE(descriptor, 0);
  ::close(descriptor);
  EXPECT_EQ(inChildWithoutPrivileges([&] {
              EXPECT_LT(::open(file.c_str(), O_RDONLY | O_CLOEXEC), 0);
              EXPECT_EQ(errno, EACCES);
            }),
            0);
  ::unlink(file.c_str());
}

TEST(ConfigurationHelper, FailureOfACallThatDoesNotFailIsAFailure) {
  EXPECT_NONFATAL_FAILURE(failureOf([] {}), "No Exception");
}

}  // namespace

}  // namespace Tessel::CMF
