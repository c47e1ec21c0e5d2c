// Fuzz target of a connection of a mail server to the lookup service: whatever the pieces in which
// the requests come, and however the replies are read, each whole request gets its reply, in order;
// what is no request gets one refusal and the end of the connection; and each connection is closed
// in the end. The first byte of an input holds the protocol and the ways to send, the second the
// longest request and the way to end; four more are the pieces. The rest is what is sent.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "disk/Descriptor.h"
#include "fuzz/Fuzz.h"
#include "fuzz/ScratchDirectory.h"
#include "serve/answer/Lookup.h"
#include "serve/base/Answer.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"
#include "serve/socket/Netstring.h"
#include "serve/socket/Peer.h"
#include "serve/socket/PolicyFrame.h"

using Tessel::Fuzz::asText;
using Tessel::Fuzz::require;
using Tessel::Fuzz::Variable;
using Tessel::Serve::Answer;
using Tessel::Serve::appendNetstring;
using Tessel::Serve::Clock;
using Tessel::Serve::deferAction;
using Tessel::Serve::Log;
using Tessel::Serve::LogLevel;
using Tessel::Serve::Lookup;
using Tessel::Serve::Metrics;
using Tessel::Serve::NetstringFrame;
using Tessel::Serve::parseNetstring;
using Tessel::Serve::parsePolicyFrame;
using Tessel::Serve::Peer;
using Tessel::Serve::PolicyFrame;
using Tessel::Serve::Protocol;
using Tessel::Serve::Settings;
using Tessel::Serve::TableImage;
using Tessel::Serve::Tables;
using Tessel::Serve::TakeRow;
using Tessel::Tool::Descriptor;

namespace {

using std::chrono::hours;

// Far more than any input needs.
constexpr int s_mostSteps = 20000;

// What the connections of all inputs share.
class Service {
 public:
  Service() {
    settings.stale.reset();
    settings.requestTimeout = hours(1);
    settings.idleTimeout = hours(2);
    const auto table = tables.add("alias");
    table->publish(std::make_shared<const TableImage>(table->kind(), [](const TakeRow& take) {
      take("a@d", "b@d");
      take("two@d", "a@d,c@d");
      take("bad@d", "no address");
      // Its reply is longer than the room of a socket.
      std::string members;
      for (int i = 0; i < 300; ++i) members += std::string(50, 'm') + std::to_string(i) + "@d,";
      take("big@d", members + "m@d");
    }));
    table->confirm(Clock::now());
    const auto rules = tables.add("rules");
    rules->publish(std::make_shared<const TableImage>(rules->kind(), [](const TakeRow& take) {
      take("alias a@d", "authenticated\t\t\t");
      take("alias bad@d", "no rule");
    }));
    rules->confirm(Clock::now());
  }

  Settings settings;
  Tables tables{settings};
  Metrics metrics;
  Log log{LogLevel::Error};
  Lookup lookup{settings, tables, metrics, log};

 private:
  const Variable m_noConfiguration{"TSL_CMF_PATH", "/nonexistent/configuration"};
};

// How the input is sent, and how the connection ends.
struct Manner {
  enum class End { Silence, NoMore, Drain, Gone };

  Protocol protocol = Protocol::Netstrings;
  std::string_view pieces;  // A size each, and what happens behind it; empty for all at once.
  End end = End::Silence;
};

// What a mail server gets: bytes, and the end of the connection after them.
struct Received {
  std::string bytes;
  bool isAtEnd = false;
  bool operator==(const Received&) const = default;
};

// A connection, with what a worker does for it.
class Connection {
 public:
  Connection(Service& service, Protocol protocol)
      : m_shared{service.settings,
                 service.lookup,
                 service.metrics,
                 m_events.get(),
                 {},
                 {},
                 Clock::now(),
                 {}} {
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "a connection");
    const int little = 1;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &little, sizeof(little));
    m_client = std::make_unique<Descriptor>(ends[1]);
    m_peer = std::make_unique<Peer>(ends[0], protocol, m_shared, [this] { ++m_closed; });
    m_peer->start();
    require(m_peer->isOpen(), "a connection begins");
  }

  [[nodiscard]] Peer& peer() { return *m_peer; }
  [[nodiscard]] const Received& received() const { return m_received; }

  void send(std::string_view bytes) {
    // What does not fit comes when there is room; nothing does once the connection is closed.
    for (int steps = 0; !bytes.empty() && m_peer->isOpen(); ++steps) {
      require(steps < s_mostSteps, "requests are taken");
      const ssize_t sent =
          ::send(m_client->get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
      if (sent <= 0) step(), read();
    }
  }
  void sendNoMore() { shutdown(m_client->get(), SHUT_WR); }
  void goAway() { m_client->reset(); }

  // One turn of a worker. False when there was nothing to do.
  bool step() {
    epoll_event event{};
    const int count = epoll_wait(m_shared.events, &event, 1, 0);
    m_shared.now = Clock::now();
    if (count == 1) {
      require(event.data.ptr == m_peer.get(), "events are for the connection");
      m_peer->proceed(event.events);
    }
    require(m_shared.queue.size() <= 1, "a connection is queued once");
    if (m_shared.queue.empty()) return count == 1;
    m_shared.queue.pop_front();
    m_peer->goOn();
    return true;
  }

  // Reads what has arrived. False when nothing has.
  bool read() {
    std::array<char, 4096> buffer{};
    const ssize_t size = recv(m_client->get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size == 0) m_received.isAtEnd = true;
    if (size <= 0) return false;
    require(!m_received.isAtEnd, "nothing comes after the end");
    m_received.bytes.append(buffer.data(), static_cast<std::size_t>(size));
    return true;
  }

  // Goes on until nothing happens any more.
  void settle(bool isReading) {
    for (int steps = 0; step() || (isReading && read()); ++steps) {
      require(steps < s_mostSteps, "a connection comes to rest");
    }
  }

  // Time passes until the connection is closed.
  void expire() {
    bool wasOpen = m_peer->isOpen();
    const Clock::time_point now = Clock::now();
    for (const Clock::duration time : {Clock::duration(0), Clock::duration(hours(1)) / 3600,
                                       Clock::duration(hours(1)), Clock::duration(hours(3))}) {
      m_peer->endIfLate(now + time);
      require(wasOpen || !m_peer->isOpen(), "what is closed stays closed");
      wasOpen = m_peer->isOpen();
      settle(false);
    }
    require(!m_peer->isOpen() && m_peer->canBeRemoved() && m_closed == 1, "it is closed, once");
  }

 private:
  const Descriptor m_events{epoll_create1(EPOLL_CLOEXEC)};
  Peer::Shared m_shared;
  std::unique_ptr<Descriptor> m_client;
  std::unique_ptr<Peer> m_peer;
  Received m_received;
  int m_closed = 0;
};

// What follows from the stream by the words of the protocol.
Received s_expected(Service& service, Protocol protocol, std::string_view stream) {
  const std::size_t most = service.settings.maxRequest;
  Received all;
  const auto append = [&](std::string_view reply) {
    if (protocol == Protocol::Lines) all.bytes.append(reply).append("\n");
    if (protocol == Protocol::Netstrings) appendNetstring(all.bytes, reply);
    if (protocol == Protocol::Policy) all.bytes.append("action=").append(reply).append("\n\n");
  };
  const auto refuse = [&](const char* why) {
    append(protocol == Protocol::Policy ? deferAction(why) : Answer::perm(why).reply());
    all.isAtEnd = true;
  };
  while (!all.isAtEnd && !stream.empty()) {
    if (protocol == Protocol::Policy) {
      const PolicyFrame frame = parsePolicyFrame(stream, most);
      if (frame.state == PolicyFrame::State::NeedMore) break;
      if (frame.state == PolicyFrame::State::TooLong) refuse("the request is too long");
      if (frame.state == PolicyFrame::State::Malformed) refuse("this is not a policy request");
      if (frame.state == PolicyFrame::State::Frame) append(*service.lookup.action(frame.request));
      stream.remove_prefix(frame.consumed);
      continue;
    }
    if (protocol == Protocol::Lines) {
      const std::size_t end = std::min(stream.find('\n'), stream.size());
      if (end > most) {
        refuse("the request is too long");
      } else if (end == stream.size()) {
        break;
      } else {
        std::string_view line = stream.substr(0, end);
        if (line.ends_with('\r')) line.remove_suffix(1);
        append(*service.lookup.reply(line));
        stream.remove_prefix(end + 1);
      }
      continue;
    }
    const NetstringFrame frame = parseNetstring(stream, most);
    if (frame.state == NetstringFrame::State::NeedMore) break;
    if (frame.state == NetstringFrame::State::TooLong) refuse("the request is too long");
    if (frame.state == NetstringFrame::State::Malformed) refuse("this is not a netstring");
    if (frame.state == NetstringFrame::State::Frame) append(*service.lookup.reply(frame.payload));
    stream.remove_prefix(frame.consumed);
  }
  return all;
}

void s_check(Service& service, std::string_view stream, const Manner& manner) {
  const Received expected = s_expected(service, manner.protocol, stream);
  Connection connection(service, manner.protocol);
  std::string_view left = stream;
  for (std::size_t i = 0; !left.empty(); ++i) {
    const unsigned piece =
        manner.pieces.empty() ? 0
                              : static_cast<unsigned char>(manner.pieces[i % manner.pieces.size()]);
    const std::size_t size =
        piece % 32U == 0 ? left.size() : std::min<std::size_t>(piece % 32U, left.size());
    connection.send(left.substr(0, size));
    left.remove_prefix(size);
    if (piece / 32U % 2U != 0) {
      connection.step();
    } else {
      connection.settle(piece / 64U % 2U == 0);
    }
    if (piece / 128U != 0) connection.peer().endIfLate(Clock::now());
  }
  if (manner.end == Manner::End::NoMore) {
    connection.sendNoMore();
  } else if (manner.end == Manner::End::Drain) {
    connection.peer().drain();
  } else if (manner.end == Manner::End::Gone) {
    connection.goAway();
    connection.settle(false);
    connection.expire();
    return;
  }
  connection.settle(true);
  require(connection.received().bytes == expected.bytes, "a reply to each request, in order",
          stream);
  require(!expected.isAtEnd || connection.received().isAtEnd, "the end after a refusal", stream);
  const bool isEnded = expected.isAtEnd || manner.end != Manner::End::Silence;
  require(isEnded || !connection.received().isAtEnd, "no end without a reason", stream);
  require(manner.end != Manner::End::NoMore || !connection.peer().isOpen(),
          "closed with the last reply", stream);
  connection.expire();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 6) return 0;
  static Service s_service;
  Manner manner;
  manner.protocol = data[0] % 2U != 0 ? Protocol::Lines : Protocol::Netstrings;
  if (data[0] / 8U % 2U != 0) manner.protocol = Protocol::Policy;
  const bool isFramed = data[0] / 2U % 2U != 0;
  const bool isRepeated = data[0] / 4U % 2U != 0;
  manner.end = static_cast<Manner::End>(data[1] % 4U);
  s_service.settings.maxRequest = std::size_t{16} << (data[1] / 4U % 4U);

  std::string_view rest = asText(data, size).substr(6);
  std::string stream(rest);
  if (isFramed && manner.protocol == Protocol::Netstrings) {
    // Each line as a frame, and what is behind the last one as it is.
    stream.clear();
    for (std::size_t end = 0; (end = rest.find('\n')) != std::string_view::npos;) {
      appendNetstring(stream, rest.substr(0, end));
      rest.remove_prefix(end + 1);
    }
    stream += rest;
  }
  // More than is answered at a time.
  if (isRepeated) {
    const std::string once = stream;
    for (int i = 0; i < 20; ++i) stream += once;
  }
  s_check(s_service, stream, {manner.protocol, {}, manner.end});
  manner.pieces = asText(data, size).substr(2, 4);
  s_check(s_service, stream, manner);
  return 0;
}
