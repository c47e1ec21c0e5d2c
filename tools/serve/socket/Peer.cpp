// One connection of a mail server.
#include "serve/socket/Peer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "serve/socket/Netstring.h"

namespace Tessel::Serve {

namespace {

constexpr std::size_t s_readSize = 65536;
// Room for replies that is kept between requests.
constexpr std::size_t s_smallOutput = 64;
// Bytes of replies that are composed before the mail server must read them.
constexpr std::size_t s_muchToSend = 262144;

// True when the last call failed only because it would have had to wait.
bool s_mustWait() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

}  // namespace

Peer::Peer(int descriptor, bool isLineProtocol, Shared& shared, std::function<void()> closed)
    : m_descriptor(descriptor),
      m_shared(shared),
      m_closed(std::move(closed)),
      m_isLineProtocol(isLineProtocol) {
  m_shared.metrics.connectionOpened();
}

Peer::~Peer() {
  close();
}

void Peer::start() {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = this;
  const bool isSet = fcntl(m_descriptor, F_SETFL, O_NONBLOCK) == 0 &&
                     epoll_ctl(m_shared.events, EPOLL_CTL_ADD, m_descriptor, &event) == 0;
  if (!isSet) return close();
  setDeadline();
}

void Peer::proceed() {
  if (!isOpen()) return;
  if (m_isWaitingForRoom) {
    send();
  } else {
    receive();
  }
  if (m_isDraining) finish();
}

void Peer::endIfLate(Clock::time_point now) {
  if (!isOpen() || now < m_deadline) return;
  m_shared.metrics.timedOut();
  close();
}

void Peer::drain() {
  m_isDraining = true;
  finish();
}

// Answers what has arrived by now. Waits for the rest of a request, but for nothing else: a mail
// server that keeps asking must not delay the exit.
void Peer::finish() {
  int waiting = 0;
  if (!isOpen() || ioctl(m_descriptor, FIONREAD, &waiting) != 0) return close();
  auto arrived = static_cast<std::size_t>(waiting);
  while (isOpen() && m_output.empty() && arrived > 0) {
    const std::size_t size = receive();
    arrived = size == 0 ? 0 : arrived - std::min(arrived, size);
  }
  if (isOpen() && m_output.empty() && m_input.empty()) close();
}

void Peer::close() {
  if (!isOpen()) return;
  ::close(std::exchange(m_descriptor, -1));
  m_shared.metrics.connectionClosed();
  std::exchange(m_closed, {})();
}

// Reads what is there and answers the requests in it. The number of bytes that were there.
std::size_t Peer::receive() {
  m_shared.input.resize(s_readSize);
  const ssize_t received = recv(m_descriptor, m_shared.input.data(), m_shared.input.size(), 0);
  if (received < 0 && s_mustWait()) return 0;
  if (received <= 0) {
    close();
    return 0;
  }
  const auto size = static_cast<std::size_t>(received);
  take({m_shared.input.data(), size});
  return size;
}

// Answers the requests of what was read.
void Peer::take(std::string_view received) {
  if (m_input.empty()) {
    answerAll(received);
  } else {
    m_input.append(received);
    const std::string all = std::exchange(m_input, {});
    answerAll(all);
  }
  send();
}

// Answers the whole requests of `received`, as far as there is room for replies, and keeps the
// rest.
void Peer::answerAll(std::string_view received) {
  m_shared.output.clear();
  const std::size_t used = m_isLineProtocol ? answerLines(received) : answerFrames(received);
  if (used != 0) m_hadInput = false;
  m_hasMore = hasMuchToSend();
  m_input.assign(m_isEnding ? std::string_view() : received.substr(used));
  sendAtOnce();
}

std::size_t Peer::answerFrames(std::string_view received) {
  std::size_t used = 0;
  while (!m_isEnding && !hasMuchToSend()) {
    const NetstringFrame frame =
        parseNetstring(received.substr(used), m_shared.settings.maxRequest);
    if (frame.state == NetstringFrame::State::NeedMore) break;
    if (frame.state == NetstringFrame::State::TooLong) {
      refuse("the request is too long");
    } else if (frame.state == NetstringFrame::State::Malformed) {
      refuse("this is not a netstring");
    } else {
      answerOne(frame.payload);
      used += frame.consumed;
    }
  }
  return used;
}

std::size_t Peer::answerLines(std::string_view received) {
  std::size_t used = 0;
  while (!m_isEnding && !hasMuchToSend()) {
    const std::size_t end = received.find('\n', used);
    const std::size_t size = (end == std::string_view::npos ? received.size() : end) - used;
    if (size > m_shared.settings.maxRequest) {
      refuse("the request is too long");
    } else if (end == std::string_view::npos) {
      break;
    } else {
      std::string_view line = received.substr(used, size);
      if (line.ends_with('\r')) line.remove_suffix(1);
      answerOne(line);
      used = end + 1;
    }
  }
  return used;
}

void Peer::answerOne(std::string_view request) {
  const std::string& reply = m_shared.lookup.reply(request);
  if (m_isLineProtocol) {
    m_shared.output.append(reply).append("\n");
  } else {
    appendNetstring(m_shared.output, reply);
  }
}

// Replies to what is not a request, and closes the connection: nobody knows where the next request
// begins.
void Peer::refuse(std::string_view why) {
  m_shared.metrics.malformedRequest();
  const std::string reply = Answer::perm(std::string(why)).reply();
  if (m_isLineProtocol) {
    m_shared.output.append(reply).append("\n");
  } else {
    appendNetstring(m_shared.output, reply);
  }
  m_isEnding = true;
}

bool Peer::hasMuchToSend() const {
  return m_output.size() + m_shared.output.size() > s_muchToSend;
}

// Sends the replies that were put together, or keeps what the mail server does not take now.
void Peer::sendAtOnce() {
  std::string_view replies = m_shared.output;
  if (replies.empty()) return;
  const ssize_t sent = ::send(m_descriptor, replies.data(), replies.size(), MSG_NOSIGNAL);
  if (sent < 0 && !s_mustWait()) return close();
  if (sent > 0) replies.remove_prefix(static_cast<std::size_t>(sent));
  m_output.append(replies);
}

// Sends as much as the mail server takes; then answers the requests that waited for that.
void Peer::send() {
  while (isOpen()) {
    if (!m_output.empty()) {
      const ssize_t sent = ::send(m_descriptor, m_output.data(), m_output.size(), MSG_NOSIGNAL);
      if (sent < 0 && s_mustWait()) {
        setDeadline();
        return waitForRoom(true);
      }
      if (sent < 0) return close();
      m_output.erase(0, static_cast<std::size_t>(sent));
    } else if (!m_isEnding && m_hasMore) {
      // Requests that had to wait until the mail server took the replies before them.
      const std::string all = std::exchange(m_input, {});
      answerAll(all);
    } else {
      break;
    }
  }
  if (m_isEnding) close();
  if (!isOpen()) return;
  if (m_output.capacity() > s_smallOutput) m_output.shrink_to_fit();
  setDeadline();
  waitForRoom(false);
}

// Has the thread wait until replies can be sent, or for requests.
void Peer::waitForRoom(bool isWanted) {
  if (isWanted == m_isWaitingForRoom) return;
  m_isWaitingForRoom = isWanted;
  epoll_event event{};
  event.events = isWanted ? EPOLLOUT : EPOLLIN;
  event.data.ptr = this;
  if (epoll_ctl(m_shared.events, EPOLL_CTL_MOD, m_descriptor, &event) != 0) close();
}

// A request must be complete, and replies must be read, in time; between requests there is more
// time.
void Peer::setDeadline() {
  const bool hasInput = m_output.empty() && !m_input.empty();
  if (hasInput && m_hadInput) return;
  m_hadInput = hasInput;
  const bool isIdle = m_output.empty() && m_input.empty();
  m_deadline =
      m_shared.now + (isIdle ? m_shared.settings.idleTimeout : m_shared.settings.requestTimeout);
}

}  // namespace Tessel::Serve
