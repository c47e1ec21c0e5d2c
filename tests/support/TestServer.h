// The private database server of a test program.
#ifndef TSL_TESTS_SUPPORT_TESTSERVER_H
#define TSL_TESTS_SUPPORT_TESTSERVER_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "database/Connection.h"
#include "local/LocalServer.h"

namespace Tessel::Testing {

// A real server in a temporary directory of its own, with its general log on. Its construction
// makes it the default server of this process (TSL_DATABASE_OPTION_FILE and TSL_CMF_PATH in the
// environment); its end, also by way of exit() after failed tests, stops it and removes the
// directory. One thread.
class TestServer {
 public:
  using Rows = std::vector<std::vector<std::string>>;

  // Starts it. `arguments` are added to the server's. Throws Exception.
  explicit TestServer(std::vector<std::string> arguments = {});
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  // The one that all tests of this process share, started at the first call.
  static TestServer& shared();

  // Runs one statement as administrator, on a connection of its own, whatever the environment
  // names. Returns the rows of its result as texts; SQL NULL is an empty text. Throws
  // Database::Error.
  Rows sql(const std::string& statement);
  // Connection number under which the server knows the one of sql().
  unsigned long sqlConnectionId();

  // An option file, as long as it lives; in use while in scope.
  class OptionFile {
   public:
    // Writes `text` to a new file in the server's directory and has TSL_DATABASE_OPTION_FILE name
    // it.
    OptionFile(const TestServer& server, const std::string& text);
    // Removes the file; the variable names again what it named before.
    ~OptionFile();
    OptionFile(const OptionFile&) = delete;
    OptionFile& operator=(const OptionFile&) = delete;
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
    // Replaces the content.
    void write(const std::string& text) const;

   private:
    std::string m_path;
    std::string m_before;
  };

  // Recreates the account `user`@localhost with `password` and the rights that `grants` gives it:
  // statements separated by semicolons. Until the result goes, the libraries use that account.
  OptionFile useAccount(const std::string& user, const std::string& password,
                        const std::string& grants);

  // Kills the server at once, as a crash would.
  void kill();
  // Ends the server in an orderly way.
  void stop();
  // Starts the server again after kill() or stop(), with the same data.
  void restart();

  [[nodiscard]] pid_t pid() const { return m_server.pid(); }
  [[nodiscard]] const std::string& directory() const { return m_directory; }
  [[nodiscard]] std::string socketPath() const { return m_server.socketPath(); }
  [[nodiscard]] std::string optionFile() const { return m_server.optionFile(); }
  [[nodiscard]] std::string generalLog() const;

 private:
  [[nodiscard]] LocalServer::Options options() const;
  void startGuard();
  void removeAll() const;

  const pid_t m_owner;
  std::vector<std::string> m_arguments;
  std::string m_directory;
  LocalServer m_server;
  pid_t m_guard = 0;
  int m_guardPipe = -1;  // Closed by the end of this process, which the guard notices.
  std::unique_ptr<Database::Connection> m_connection;  // For sql().
};

}  // namespace Tessel::Testing

#endif
