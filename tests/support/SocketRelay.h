// A relay before the test server that breaks connections at a chosen point.
#ifndef TSL_TESTS_SUPPORT_SOCKETRELAY_H
#define TSL_TESTS_SUPPORT_SOCKETRELAY_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Tessel::Testing {

// Listens on a Unix socket, or on a port of 127.0.0.1, and passes bytes between its clients and a
// server's socket. Its threads end with it. One thread may call its operations.
class SocketRelay {
 public:
  // Where connections break.
  enum class Direction { ToServer, ToClient };

  // Changes the first bytes that the server says on a connection.
  using Forger = std::function<void(std::string&)>;

  // Listens on `path`, which must not exist, for the server on `serverPath`.
  SocketRelay(const std::string& path, const std::string& serverPath);
  // Listens on a free port of 127.0.0.1; path() is "127.0.0.1:PORT", and so may be the places of
  // the servers. Each further connection leads to the next one of the servers.
  explicit SocketRelay(std::vector<std::string> servers, Forger forger = nullptr);
  ~SocketRelay();
  SocketRelay(const SocketRelay&) = delete;
  SocketRelay& operator=(const SocketRelay&) = delete;

  // Breaks the connection after `bytes` more bytes have passed in `direction`, whichever connection
  // they belong to. Connections made after the break are passed on without limit, or with
  // `thenRefuse` closed at once.
  void cutAfter(Direction direction, std::size_t bytes, bool thenRefuse = false);
  // Takes back a cut that has not come yet, and ends refusing. Returns true when it had come.
  bool endCut();
  // Keeps from now on what the server says, so that the client waits; false ends that.
  void hold(bool held) { m_held = held; }
  // Closes its connections and refuses new ones, as a server that goes down.
  void goDown();

  // The statements that passed so far, exactly as they were sent: the server cuts blanks and
  // semicolons at the end of a statement before it logs it. Not for encrypted or compressed
  // connections, nor for statements of 16 MiB and more.
  [[nodiscard]] std::vector<std::string> statements() const;

  // Everything that clients said so far.
  [[nodiscard]] std::string said() const;
  // Bytes that passed so far.
  [[nodiscard]] std::size_t passed(Direction direction) const;
  // Connections accepted so far.
  [[nodiscard]] int connections() const { return m_connections; }
  [[nodiscard]] const std::string& path() const { return m_path; }

 private:
  void accept();
  void relay(int client, const std::string& place);
  bool pass(int from, int to, Direction direction, std::string& packets, bool isFirst = false);
  void recordStatements(std::string& packets);
  std::size_t allowed(Direction direction, std::size_t size, bool& cut);

  static constexpr std::size_t s_noCut = static_cast<std::size_t>(-1);

  std::string m_path;
  std::vector<std::string> m_serverPaths;
  const Forger m_forger;
  int m_listener = -1;
  std::atomic<bool> m_stopping{false};
  std::atomic<bool> m_held{false};
  std::atomic<int> m_connections{0};
  std::atomic<std::size_t> m_passed[2]{};
  std::atomic<std::size_t> m_left[2]{s_noCut, s_noCut};
  std::atomic<bool> m_hasCut{false};
  std::atomic<bool> m_thenRefuse{false};
  mutable std::mutex m_mutex;
  std::vector<std::string> m_statements;  // Guarded by m_mutex.
  std::string m_said;                     // Guarded by m_mutex.
  std::vector<std::thread> m_relays;      // Used by the accepting thread, and after its end.
  std::thread m_acceptor;
};

}  // namespace Tessel::Testing

#endif
