// One connection of the client library: how it is opened, found dead and closed. Private to this
// directory, and its only door to the client library's header.
#ifndef TSL_DATABASE_HANDLE_H
#define TSL_DATABASE_HANDLE_H

#include <mysql.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "base/SocketAddress.h"
#include "database/Error.h"
#include "database/OptionSource.h"

namespace Tessel::Database {

// Which server to connect to.
struct Target {
  OptionSource options;
  // None: the default server, as the options name it. Otherwise this address, with the user, the
  // password and everything else from the options.
  std::optional<SocketAddress> address;
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
  // Connects, selects `database` (none when empty) and sets up the session. Throws Error.
  static std::unique_ptr<Handle> open(const Target& target, const std::string& database);
  // Closes the connection, sending nothing and waiting for nothing. In a forked child the parent's
  // connection stays unharmed.
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  [[nodiscard]] MYSQL* mysql() const noexcept { return m_mysql; }
  [[nodiscard]] bool usesTls() const noexcept { return m_tls; }
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
  void connect(const Target& target, const std::string& database);
  void enforceLimits(const Target& target);
  void setUpSession();
  [[nodiscard]] int descriptor() const noexcept;

  MYSQL* m_mysql;  // Owned.
  pid_t m_owner;   // The process that opened it.
  bool m_tls = false;
};

// Error of MySQL servers that gave up waiting for a statement; MariaDB's headers do not name it.
inline constexpr unsigned int s_clientInteractionTimeout = 4031;

// True for the error numbers that mean a broken connection.
bool isConnectionLoss(unsigned int number);

}  // namespace Tessel::Database

#endif
