// A worker that answers from tables in memory, and the mail servers that ask it.
#ifndef TSL_TESTS_SERVE_WORKERFIXTURE_H
#define TSL_TESTS_SERVE_WORKERFIXTURE_H

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "serve/socket/Netstring.h"
#include "serve/socket/Worker.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {

// Waits for `condition`, ten seconds at most; what it was at the end.
inline bool waitFor(const std::function<bool()>& condition) {
  const Clock::time_point limit = Clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (Clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A request as a frame.
inline std::string framed(std::string_view request) {
  std::string frame;
  appendNetstring(frame, request);
  return frame;
}

// The mail server's end of a connection. Waits ten seconds at most for what it reads.
class Client {
 public:
  explicit Client(int descriptor) : m_descriptor(descriptor) {
    const timeval limit{10, 0};
    setsockopt(m_descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(m_descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  }
  ~Client() { close(m_descriptor); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Sends all of it.
  void send(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t sent = ::send(m_descriptor, text.data(), text.size(), MSG_NOSIGNAL);
      ASSERT_GT(sent, 0);
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  // Sends as much as is taken at once; the number of bytes.
  [[nodiscard]] std::size_t sendSome(std::string_view text) const {
    const ssize_t sent =
        ::send(m_descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  // Waits until the service has read all that was sent.
  void waitUntilRead() const {
    EXPECT_TRUE(waitFor([this] {
      int left = 0;
      return ioctl(m_descriptor, SIOCOUTQ, &left) == 0 && left == 0;
    }));
  }
  // Reads `size` bytes at most, and drops them.
  void readSome(std::size_t size) const {
    std::string dropped(size, '\0');
    static_cast<void>(recv(m_descriptor, dropped.data(), size, MSG_DONTWAIT));
  }
  // Bytes that have arrived.
  [[nodiscard]] std::size_t available() const {
    int size = 0;
    EXPECT_EQ(ioctl(m_descriptor, FIONREAD, &size), 0);
    return static_cast<std::size_t>(size);
  }
  void endSending() const { shutdown(m_descriptor, SHUT_WR); }

  // What is in the next frame; "none" when the connection is closed first or it is not a frame.
  std::string reply() {
    while (true) {
      const NetstringFrame frame = parseNetstring(m_received, 1U << 30U);
      if (frame.state == NetstringFrame::State::Frame) {
        std::string payload(frame.payload);
        m_received.erase(0, frame.consumed);
        return payload;
      }
      if (frame.state != NetstringFrame::State::NeedMore || !receive()) return "none";
    }
  }
  // The next line; "none" when the connection ends first.
  std::string line() {
    while (true) {
      const std::size_t end = m_received.find('\n');
      if (end != std::string::npos) {
        std::string text = m_received.substr(0, end);
        m_received.erase(0, end + 1);
        return text;
      }
      if (!receive()) return "none";
    }
  }
  // The reply to `request`.
  std::string ask(std::string_view request) {
    send(framed(request));
    return reply();
  }
  // True when the service has ended the connection and nothing is left to read.
  bool isAtEnd() { return m_received.empty() && !receive() && m_isEnded; }

 private:
  // False when nothing came: at the end, or when it takes too long.
  bool receive() {
    char buffer[65536];
    const ssize_t size = recv(m_descriptor, buffer, sizeof(buffer), 0);
    m_isEnded = size == 0 || (size < 0 && errno == ECONNRESET);
    if (size <= 0) return false;
    m_received.append(buffer, static_cast<std::size_t>(size));
    return true;
  }

  const int m_descriptor;
  std::string m_received;
  bool m_isEnded = false;
};

// One worker; the settings are those of the test until it first serves a table or connects.
class WorkerFixture : public testing::Test {
 protected:
  // Connects a mail server.
  std::unique_ptr<Client> connect(Protocol protocol = Protocol::Netstrings,
                                  bool isOneTooMany = false) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    worker().take(ends[0], protocol, isOneTooMany);
    return std::make_unique<Client>(ends[1]);
  }

  Worker& worker() {
    if (m_worker == nullptr) {
      m_worker = std::make_unique<Worker>(m_settings, tables(), m_metrics, m_log, m_background,
                                          [this] { closed(); });
    }
    return *m_worker;
  }

  // Called by the worker after a connection; who holds `m_hold` holds up the worker in it.
  void closed() {
    ++m_closing;
    const std::lock_guard lock(m_hold);
    ++m_closed;
  }

  // Has the table of aliases answer with `rows`.
  void serve(const Rows& rows) { publishRows(*tables().add("alias"), rows); }

  Tables& tables() {
    if (!m_tables) m_tables.emplace(m_settings);
    return *m_tables;
  }

  // The metrics have the line `line`.
  bool counts(const std::string& line) {
    return metricsText(m_metrics, tables(), Clock::now())
               .find("\ntsl_address_map_" + line + "\n") != std::string::npos;
  }

  Settings m_settings;
  std::optional<Tables> m_tables;
  Metrics m_metrics;
  Log m_log{LogLevel::Error};
  std::mutex m_hold;
  std::atomic<int> m_closing{0};
  std::atomic<int> m_closed{0};
  Background m_background{1};
  std::unique_ptr<Worker> m_worker;
};

}  // namespace Tessel::Serve

#endif
