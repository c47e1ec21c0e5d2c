// One connection of the client library: how it is opened, found dead and closed. Private to this
// directory, and its only door to the client library's header.
#ifndef TSL_DATABASE_HANDLE_H
#define TSL_DATABASE_HANDLE_H

#include <mysql.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/SocketAddress.h"
#include "database/Encryption.h"
#include "database/Error.h"
#include "database/HostList.h"
#include "database/OptionSource.h"

namespace Tessel::Database {

// Which server to connect to.
struct Target {
  OptionSource options;
  // None: the default server, as the options name it. Otherwise this address, with the user, the
  // password and everything else from the options.
  std::optional<SocketAddress> address;
  // The only host to connect to, by its text.
  std::optional<std::string> only;
  // Hosts that do not carry out what this connection is for; they are tried last.
  std::set<std::string> avoided;
};

// Keeps SIGPIPE from this thread while `active`: writing to a TLS connection whose server is gone
// raises it (plain sockets are written with MSG_NOSIGNAL). The program's handler stays untouched.
class PipeGuard {
 public:
  explicit PipeGuard(bool active);
  ~PipeGuard();
  PipeGuard(const PipeGuard&) = delete;
  PipeGuard& operator=(const PipeGuard&) = delete;

 private:
  bool m_active;
};

// An open connection. One thread at a time.
class Handle {
 public:
  using Clock = std::chrono::steady_clock;

  // Connects to the first host that works, selects `database` (none when empty) and sets up the
  // session. `spent` is the time that the caller spent on connecting already, and is added to: all
  // hosts and all calls for one statement share the connect time-out. A missing database is the
  // answer of a host that works; for any other failure the next host is tried. Throws Error.
  static std::unique_ptr<Handle> open(const Target& target, const std::string& database,
                                      Clock::duration& spent);
  // The hosts to try for `target`, at least one. Throws Exception for options that cannot be used.
  static std::vector<Host> hostsFor(const Target& target);
  // Closes the connection, sending nothing and waiting for nothing. In a forked child the parent's
  // connection stays unharmed.
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  [[nodiscard]] MYSQL* mysql() const noexcept { return m_mysql; }
  [[nodiscard]] bool usesTls() const noexcept { return m_encryption.has_value(); }
  [[nodiscard]] const std::optional<Encryption>& encryption() const noexcept {
    return m_encryption;
  }
  // How long connecting may take, for all hosts together.
  [[nodiscard]] Clock::duration connectTime() const noexcept { return m_connectTime; }
  // The host that this connection leads to, as HostHealth knows it.
  [[nodiscard]] const std::string& host() const noexcept { return m_host; }
  // How many hosts there are for this connection, this one included.
  [[nodiscard]] std::size_t hosts() const noexcept { return m_hosts; }
  // True in a process that was forked after the connection was opened: the parent owns it.
  [[nodiscard]] bool isForeign() const noexcept;
  // True when nothing can come of sending a statement: the server closed the connection or said
  // something unasked. One system call.
  [[nodiscard]] bool isDead() const noexcept;
  // As of the last answer that the server gave.
  [[nodiscard]] bool inTransaction() const noexcept;

  [[nodiscard]] SocketAddress peerAddress() const;
  // The failure that the client library has on record for this connection. Throws std::bad_alloc
  // when it is a lack of memory.
  [[nodiscard]] Error::Facts lastError(std::string_view statement) const;

 private:
  explicit Handle(MYSQL* mysql);
  void connect(const Target& target, const std::vector<Option>& options, const Host& host,
               const std::string& database, Clock::time_point until);
  void enforceLimits(const Target& target);
  void setUpSession(Clock::time_point until);
  unsigned int runUntil(std::string_view statement, Clock::time_point until);
  [[nodiscard]] int descriptor() const noexcept;

  MYSQL* m_mysql;  // Owned.
  pid_t m_owner;   // The process that opened it.
  std::optional<Encryption> m_encryption;
  std::string m_host;
  std::size_t m_hosts = 1;
  Clock::duration m_connectTime{};
};

// Error of MySQL servers that gave up waiting for a statement; MariaDB's headers do not name it.
inline constexpr unsigned int s_clientInteractionTimeout = 4031;

// True for the error numbers that mean a broken connection.
bool isConnectionLoss(unsigned int number);

}  // namespace Tessel::Database

#endif
