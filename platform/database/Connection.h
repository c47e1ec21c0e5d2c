// A connection to the database server.
#ifndef TSL_DATABASE_CONNECTION_H
#define TSL_DATABASE_CONNECTION_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Export.h"
#include "base/SocketAddress.h"
#include "database/Encryption.h"

namespace Tessel::Database {

// A connection with a database selected. One thread at a time may use it, together with the queries
// and transactions on it; different connections are independent of each other.
//
// The server is the one that the MySQL option files name, groups [client] and [tsl-address-map];
// the environment variable TSL_DATABASE_OPTION_FILE names one file to read instead of the standard
// ones. Every session runs in utf8mb4, with autocommit, in a fixed strict SQL mode.
//
// The options may name several hosts: the first one that works is used. What a connection to one
// takes, and a host that refuses to carry out a statement (cut off from its cluster, read-only), is
// counted for the whole process, and such hosts are tried last for a while.
//
// A connection that is found dead when a statement starts is opened again by itself, to a host that
// the same option file names, and its database selected again. Nothing else that a statement
// set up in the session survives that: keep no user variables, temporary tables or table locks, and
// select databases with dbSelect() only. Inside a transaction the statement fails instead.
//
// After a fork the child may keep using its copies of the parent's connections: the child reopens
// them at their next use, and the parent's stay unharmed.
//
// Failures are thrown as `Error`; an option file that cannot be read and a socket without an
// address as plain `Exception`, code 4. SIGPIPE is never raised, and the program's handler never
// changed.
class TSL_EXPORT Connection {
 public:
  // One of the hosts that the options name.
  struct Host {
    // "db1.example:3306", "[2001:db8::1]"; empty for a socket, or what else is the default.
    std::string name;
  };

  // Connects to the default server and selects `database`; none when it is empty. Throws Error,
  // number 1049, when the database does not exist.
  explicit Connection(const std::string& database);
  // The same at the server with the given address. User, password and everything else come from the
  // option files. The address of the default server is reached in the default way, by the name that
  // its certificate may be bound to.
  Connection(const SocketAddress& server, const std::string& database);
  // The same at one host alone, also if it counts as failed.
  Connection(const Host& host, const std::string& database);
  // Closes the connection; the server undoes an open transaction. Sends nothing and waits for
  // nothing, also when the server hangs. Never throws.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // All hosts that the options name, in their order; at least one. Throws Exception, code 4, for
  // options that cannot be used.
  static std::vector<Host> hosts();
  // Address of the default server, as seen by connecting to it. Throws when it cannot be reached.
  static SocketAddress defaultAddress();

  // Selects the database `name` and returns true, or returns false when there is none of that name;
  // the selection is as before then. Throws Error on any other failure.
  bool dbSelectIfExists(const std::string& name);
  // Selects the database `name`. Throws Error, number 1049, when there is none of that name.
  void dbSelect(const std::string& name);
  // Drops the database `name` with all its tables; does nothing when there is none. Throws Error.
  void dbDelete(const std::string& name);

  // Closes the connection and counts its host as one that failed: the next statement goes to
  // another one where the options name several. For a host that answers, but not as it should, such
  // as a replica that is far behind. Never throws.
  void leaveHost() noexcept;

  // From now on, where the options name several hosts, asks another one when the first takes longer
  // than `patience` for a statement that only reads or starts a transaction, outside of one; the
  // host counts as failed, and may still be at work on it. For short statements, to which one of
  // the hosts answers at once.
  void setPatience(std::chrono::milliseconds patience) noexcept;

  // True between the start of a transaction and its end, as of the last answer of the server.
  [[nodiscard]] bool inTransaction() const noexcept;
  // Version text of the server, for example "10.11.6-MariaDB". Opens a dead connection again.
  std::string serverVersion();
  // Number that the server gave to this connection. Opens a dead connection again.
  unsigned long id();
  // The host that this connection leads to. Opens a dead connection again.
  Host host();
  // Address of the server that this connection leads to. Opens a dead connection again.
  SocketAddress peerAddress();
  // How this connection is encrypted; nothing when it is not. Opens a dead connection again.
  std::optional<Encryption> encryption();

 private:
  friend class Query;
  friend class Transaction;
  class TSL_HIDDEN Impl;  // Defined in a private header: where statements are sent.

  std::unique_ptr<Impl> m_impl;
};

}  // namespace Tessel::Database

#endif
