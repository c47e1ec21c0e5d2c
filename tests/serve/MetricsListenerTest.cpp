// Metrics and health over HTTP, asked over the loopback network as Prometheus does.
#include "serve/socket/MetricsListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failure/Failure.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A socket of the tests themselves, which gives up after some seconds.
class TcpSocket {
 public:
  TcpSocket() : m_descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval limit{10, 0};
    setsockopt(m_descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  }
  ~TcpSocket() { close(m_descriptor); }
  TcpSocket(const TcpSocket&) = delete;
  TcpSocket& operator=(const TcpSocket&) = delete;

  // A free port of the loopback network, which it holds.
  int bindAnywhere() {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    EXPECT_EQ(bind(m_descriptor, reinterpret_cast<sockaddr*>(&address), size), 0);
    getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }
  void listenToNobody() const { EXPECT_EQ(listen(m_descriptor, 1), 0); }

  // What the server at `port` says to `request`.
  std::string exchange(int port, const std::string& request) {
    sendOnly(port, request);
    return rest();
  }
  // What comes until the server closes the connection.
  std::string rest() {
    std::string reply;
    char buffer[4096];
    for (ssize_t size = 1; size > 0;) {
      size = recv(m_descriptor, buffer, sizeof(buffer), 0);
      if (size > 0) reply.append(buffer, static_cast<std::size_t>(size));
    }
    return reply;
  }
  void sendOnly(int port, const std::string& request) const {
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    EXPECT_EQ(send(m_descriptor, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
  }

  // Nothing comes within `time`, in milliseconds.
  [[nodiscard]] bool isSilentFor(int time) const {
    pollfd input{m_descriptor, POLLIN, 0};
    return poll(&input, 1, time) == 0;
  }
  // The server has not closed it.
  [[nodiscard]] bool isOpen() const {
    char byte;
    return recv(m_descriptor, &byte, sizeof(byte), MSG_DONTWAIT) == -1 && errno == EAGAIN;
  }

 private:
  static sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
  }

  int m_descriptor;
};

// A listener at some free port, one for all tests.
class MetricsListenerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Another program may take the port between the two steps.
    for (int attempt = 0; s_listener == nullptr; ++attempt) {
      s_port = TcpSocket().bindAnywhere();
      try {
        s_listener = std::make_unique<MetricsListener>("127.0.0.1", s_port, pages());
      } catch (const Tool::Failure&) {
        if (attempt == 20) throw;
      }
    }
  }
  static void TearDownTestSuite() { s_listener.reset(); }

  static MetricsListener::Pages pages() {
    return {[] { return "a_metric 1\n"; }, [] { return s_isReady ? "" : "no table"; },
            [] { return s_isReady ? "db1:3306" : ""; }};
  }

  static std::string get(const std::string& path) {
    return TcpSocket().exchange(s_port, "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
  }

  static inline std::atomic<bool> s_isReady{true};
  static inline int s_port = 0;
  static inline std::unique_ptr<MetricsListener> s_listener;
};

TEST_F(MetricsListenerTest, GivesTheMetricsAsPrometheusWantsThem) {
  const std::string reply = get("/metrics");
  EXPECT_THAT(reply, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(reply, HasSubstr("Content-Type: text/plain; version=0.0.4"));
  EXPECT_THAT(reply, HasSubstr("Content-Length: 11\r\n"));
  EXPECT_THAT(reply, EndsWith("\r\n\r\na_metric 1\n"));
}

TEST_F(MetricsListenerTest, SaysThatAConnectionAsksOnce) {
  EXPECT_THAT(get("/health"), HasSubstr("Connection: close\r\n"));
  const std::string old =
      TcpSocket().exchange(s_port, "GET /health HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
  EXPECT_THAT(old, StartsWith("HTTP/1.0 200 OK\r\n"));
  EXPECT_THAT(old, Not(HasSubstr("keep-alive")));
}

TEST_F(MetricsListenerTest, TellsThatItIsAliveAndWhetherItIsReady) {
  const std::string health = get("/health");
  EXPECT_THAT(health, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(health, HasSubstr("Content-Type: text/plain; charset=utf-8\r\n"));
  EXPECT_THAT(health, EndsWith("\r\n\r\nok\n"));
  const std::string ready = get("/ready");
  EXPECT_THAT(ready, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(ready, EndsWith("\r\n\r\nready\ndatabase: db1:3306\n"));
  s_isReady = false;
  const std::string reply = get("/ready");
  EXPECT_THAT(reply, StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
  EXPECT_THAT(reply, HasSubstr("\r\n\r\nno table\ndatabase: none can be asked\n"));
  s_isReady = true;
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(MetricsListenerTest, HasNothingElse) {
  for (const char* path : {"/", "/etc/passwd", "/../../etc/passwd", "/%2e%2e/etc/passwd"}) {
    const std::string reply = get(path);
    EXPECT_THAT(reply, StartsWith("HTTP/1.1 404 Not Found\r\n")) << path;
    EXPECT_THAT(reply, EndsWith("\r\n\r\nthere are /metrics, /health and /ready\n")) << path;
  }
  const std::string put =
      TcpSocket().exchange(s_port, "PUT /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n");
  EXPECT_THAT(put, StartsWith("HTTP/1.1 405 Method Not Allowed\r\n"));
  EXPECT_THAT(put, EndsWith("\r\n\r\nonly GET is known\n"));
}

TEST_F(MetricsListenerTest, HalfRequestsKeepNobodyOut) {
  std::list<TcpSocket> others;
  const auto add = [&others] { others.emplace_back().sendOnly(s_port, "GET /metrics HT"); };
  for (int i = 0; i < 63; ++i) add();
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_TRUE(others.front().isOpen());
  // The oldest one goes for whoever is one too many.
  add();
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_FALSE(others.front().isOpen());
  EXPECT_TRUE(others.back().isOpen());
  for (int i = 0; i < 40; ++i) add();
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(MetricsListenerTest, ListensAgainAtOnceAtThePortThatItHad) {
  const std::string before = get("/health");
  s_listener.reset();
  s_listener = std::make_unique<MetricsListener>("127.0.0.1", s_port, pages());
  EXPECT_EQ(get("/health"), before);
}

TEST_F(MetricsListenerTest, WithoutADescriptorItWaitsForOne) {
  TcpSocket waiting;
  {
    const DescriptorShortage shortage(1);  // poll(2) needs one.
    waiting.sendOnly(s_port, "GET /health HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_TRUE(waiting.isSilentFor(150));
  }
  EXPECT_THAT(waiting.rest(), StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(MetricsListenerTest, AnEndlessHeaderEndsTheConnection) {
  const std::string reply =
      TcpSocket().exchange(s_port, "GET /metrics HTTP/1.1\r\nX: " + std::string(20000, 'x'));
  EXPECT_THAT(reply, Not(HasSubstr(" 200 ")));
}

TEST_F(MetricsListenerTest, APortThatIsInUseIsRefused) {
  TcpSocket other;
  const int port = other.bindAnywhere();
  other.listenToNobody();
  try {
    const MetricsListener listener("127.0.0.1", port, {});
    ADD_FAILURE() << "it listens on a port that is in use";
  } catch (const Tool::Failure& failure) {
    EXPECT_EQ(failure.code(), Tool::ExitCode::Configuration);
    EXPECT_EQ(failure.subject(), "listening for metrics at 127.0.0.1 port " + std::to_string(port));
    EXPECT_EQ(failure.why(), "Address already in use");
    EXPECT_EQ(failure.hint(),
              "give a free port on an address of this host, as in --metrics 127.0.0.1:9321");
  }
}

}  // namespace
}  // namespace Tessel::Serve
