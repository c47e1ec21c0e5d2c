// TestServer: the server's directory, the environment that names it, and faults.
#include "support/TestServer.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "base/Exception.h"
#include "base/sourceLine.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "local/ServerProcess.h"

namespace Tessel::Testing {

namespace {

constexpr char s_optionVariable[] = "TSL_DATABASE_OPTION_FILE";
constexpr char s_cmfVariable[] = "TSL_CMF_PATH";
constexpr std::uint64_t s_bufferPool = 64ULL * 1024 * 1024;
constexpr useconds_t s_pause = 1000;

class TextParser : public Database::AllRowParser {
 public:
  explicit TextParser(TestServer::Rows& rows) : m_rows(rows) {}

  void parse(void* connection, void* result) override {
    for (std::int64_t i = 0; i < db_result_row_num(result); ++i) {
      void* const row = db_result_fetch_row(result, i);
      auto& texts = m_rows.emplace_back();
      for (unsigned int column = 0; column < db_result_column_num(result); ++column) {
        texts.emplace_back(db_result_get_value(connection, result, row, column),
                           db_result_field_length(result, column));
      }
    }
  }

 private:
  TestServer::Rows& m_rows;
};

std::string s_makeDirectory() {
  // Short: the path of a socket in it must stay under 108 bytes.
  std::string directory = "/tmp/tsl-test-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    throw Exception("TestServer", 4, "TestServer", sourceLine()).stringParameter("mkdtemp failed");
  }
  return directory;
}

void s_setEnvironment(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): tests do this on one thread
}

std::string s_environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): as above
  return value != nullptr ? value : "";
}

}  // namespace

TestServer::TestServer(std::vector<std::string> arguments)
    : m_owner(getpid()),
      m_arguments(std::move(arguments)),
      m_directory(s_makeDirectory()),
      m_server(m_directory + "/s") {
  startGuard();
  m_server.start(options());
  s_setEnvironment(s_optionVariable, m_server.optionFile());
  s_setEnvironment(s_cmfVariable, m_server.cmfDirectory());
  m_connection = std::make_unique<Database::Connection>("");
}

TestServer::~TestServer() {
  // A child that a test forked has a copy of this object, not the server.
  if (getpid() != m_owner) return;
  m_connection.reset();
  kill();
  removeAll();
  close(m_guardPipe);
  waitpid(m_guard, nullptr, 0);
}

void TestServer::removeAll() const {
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

// A crashed or killed test program must leave nothing running.
void TestServer::startGuard() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
  m_guard = fork();
  if (m_guard == 0) {
    // Out of reach of what is meant for the test program.
    setsid();
    // Nor may it keep open what the guard of another server waits for.
    dup2(ends[0], STDIN_FILENO);
    close_range(STDERR_FILENO + 1, UINT_MAX, 0);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
    }
    const pid_t server = pid();
    if (server != 0) ::kill(server, SIGKILL);
    while (pid() != 0) usleep(s_pause);
    removeAll();
    _exit(0);
  }
  close(ends[0]);
  m_guardPipe = ends[1];
}

TestServer& TestServer::shared() {
  static TestServer s_server;
  return s_server;
}

std::string TestServer::generalLog() const {
  return m_directory + "/general.log";
}

LocalServer::Options TestServer::options() const {
  LocalServer::Options options;
  options.bufferPool = s_bufferPool;
  options.durable = false;
  options.arguments = {"--innodb-log-file-size=8M", "--general-log=ON",
                       "--general-log-file=" + generalLog()};
  options.arguments.insert(options.arguments.end(), m_arguments.begin(), m_arguments.end());
  return options;
}

TestServer::Rows TestServer::sql(const std::string& statement) {
  Rows rows;
  TextParser parser(rows);
  Database::Query query(*m_connection, &parser, false);
  query << statement;
  query.execute();
  return rows;
}

unsigned long TestServer::sqlConnectionId() {
  return m_connection->id();
}

TestServer::OptionFile TestServer::useAccount(const std::string& user, const std::string& password,
                                              const std::string& grants) {
  const std::string account = "'" + user + "'@'localhost'";
  sql("create or replace user " + account + " identified by '" + password + "'");
  std::istringstream list(grants);
  for (std::string grant; std::getline(list, grant, ';');) {
    if (grant.find_first_not_of(' ') != std::string::npos) sql(grant);
  }
  return {*this,
          "[client]\nsocket=" + socketPath() + "\nuser=" + user + "\npassword=" + password + "\n"};
}

void TestServer::kill() {
  const pid_t server = pid();
  if (server == 0) return;
  ::kill(server, SIGKILL);
  while (!hasEnded(server)) usleep(s_pause);
}

void TestServer::stop() {
  m_server.stop();
}

void TestServer::restart() {
  m_server.start(options());
}

TestServer::OptionFile::OptionFile(const TestServer& server, const std::string& text)
    : m_before(s_environment(s_optionVariable)) {
  static std::atomic<int> s_number{0};
  m_path = server.directory() + "/options-" + std::to_string(++s_number) + ".cnf";
  write(text);
  s_setEnvironment(s_optionVariable, m_path);
}

TestServer::OptionFile::~OptionFile() {
  s_setEnvironment(s_optionVariable, m_before);
  std::error_code ignored;
  std::filesystem::remove(m_path, ignored);
}

void TestServer::OptionFile::write(const std::string& text) const {
  std::ofstream stream(m_path, std::ios::trunc);
  stream << text;
}

}  // namespace Tessel::Testing
