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

#include "base/sizes.h"
#include "serve/socket/Netstring.h"
#include "serve/socket/PolicyFrame.h"

namespace Tessel::Serve {

namespace {

constexpr std::size_t s_readSize = 64_KiB;
// Bytes of replies that are composed before the mail server must read them.
constexpr std::size_t s_muchToSend = 256_KiB;
// Room for replies that is kept between requests.
constexpr std::size_t s_smallOutput = 64;
// Requests of one connection that are answered before others have their turn, and for how long.
constexpr int s_requestsAtOnce = 16;
constexpr std::chrono::microseconds s_timeAtOnce = 200us;
// How long a mail server has to read why the connection ends.
constexpr std::chrono::milliseconds s_lingering = 2s;
// How long a mail server that is silent may delay the end of the service.
constexpr std::chrono::milliseconds s_drainPatience = 300ms;

// True when the last call failed only because it would have had to wait. No signal interrupts a
// call that does not wait.
bool s_mustWait() {
  return errno == EAGAIN;
}

}  // namespace

Peer::Peer(int descriptor, Protocol protocol, Shared& shared, std::function<void()> closed)
    : m_descriptor(descriptor),
      m_shared(shared),
      m_closed(std::move(closed)),
      m_protocol(protocol) {
  m_shared.metrics.connectionOpened();
}

Peer::~Peer() {
  close();
}

void Peer::start() {
  epoll_event event{};
  event.events = m_events = EPOLLIN;
  event.data.ptr = this;
  const bool isSet = fcntl(m_descriptor, F_SETFL, O_NONBLOCK) == 0 &&
                     epoll_ctl(m_shared.events, EPOLL_CTL_ADD, m_descriptor, &event) == 0;
  if (!isSet) return close();
  m_lastUse = m_shared.now;
  setDeadline(true);
}

void Peer::proceed(std::uint32_t events) {
  if (!isOpen()) return;
  // To the end, also when both sides send no more.
  if (m_isLingering) return dropInput();
  // Nobody reads replies any more.
  if ((events & (EPOLLERR | EPOLLHUP)) != 0) return close();
  // Taken before this one had to wait for something else.
  if ((events & m_events) == 0) return;
  if (m_output.empty()) {
    receive();
  } else {
    const std::string replies = std::exchange(m_output, {});
    send(replies);
    if (m_output.empty()) m_hadProgress = true;
  }
  settle();
}

void Peer::goOn() {
  m_isQueued = false;
  if (!isOpen() || !m_output.empty()) return;
  const std::string all = std::exchange(m_input, {});
  answerAll(all);
  settle();
}

void Peer::resume() {
  if (!isOpen() || !m_isWaiting) return;
  m_isWaiting = false;
  goOn();
}

bool Peer::isIdle() const {
  return isOpen() && m_output.empty() && !m_isWaiting && !m_isQueued;
}

void Peer::endIfLate(Clock::time_point now) {
  if (!isOpen() || now < m_deadline) return;
  m_shared.metrics.timedOut();
  close();
}

// A mail server that keeps asking must not delay the exit, nor one that is silent: from now on only
// the rest of a request is waited for, and the first one of a new connection, for a moment only.
void Peer::drain() {
  int waiting{};
  if (!isOpen()) return;
  if (ioctl(m_descriptor, FIONREAD, &waiting) != 0) return close();
  m_isDraining = true;
  m_hadProgress = true;  // A new deadline.
  m_arrived = static_cast<std::size_t>(waiting);
  settle();
}

void Peer::close() {
  if (!isOpen()) return;
  ::close(std::exchange(m_descriptor, -1));
  m_shared.metrics.connectionClosed();
  std::exchange(m_closed, {})();
}

// Reads what is there and answers requests in it.
void Peer::receive() {
  m_shared.input.resize(s_readSize);
  const ssize_t received = recv(m_descriptor, m_shared.input.data(), m_shared.input.size(), 0);
  if (received == -1 && s_mustWait()) return;
  if (received <= 0) return close();
  const auto size = static_cast<std::size_t>(received);
  m_arrived -= std::min(m_arrived, size);
  const std::string_view bytes(m_shared.input.data(), size);
  if (m_input.empty()) return answerAll(bytes);
  m_input.append(bytes);
  const std::string all = std::exchange(m_input, {});
  answerAll(all);
}

// Reads what nobody wants any more: if something is left to read when a connection is closed, the
// mail server may lose the last reply.
void Peer::dropInput() {
  m_shared.input.resize(s_readSize);
  const ssize_t received = recv(m_descriptor, m_shared.input.data(), m_shared.input.size(), 0);
  if (received == 0 || (received == -1 && !s_mustWait())) close();
}

// Answers whole requests of `received`, as far as there is time and room for replies, and keeps the
// rest. Requires: nothing is to be sent.
void Peer::answerAll(std::string_view received) {
  m_shared.output.clear();
  m_left = s_requestsAtOnce;
  m_shared.now = Clock::now();
  const std::size_t used = m_protocol == Protocol::Netstrings ? answerFrames(received)
                           : m_protocol == Protocol::Lines    ? answerLines(received)
                                                              : answerPolicies(received);
  m_input.assign(m_isEnding ? std::string_view() : received.substr(used));
  if (used != 0) m_hadProgress = m_wasUsed = true;
  if (used != 0) m_lastUse = m_shared.now;
  send(m_shared.output);
}

std::size_t Peer::answerFrames(std::string_view received) {
  std::size_t used = 0;
  while (mayAnswer()) {
    const NetstringFrame frame =
        parseNetstring(received.substr(used), m_shared.settings.maxRequest);
    if (frame.state == NetstringFrame::State::NeedMore) {
      m_hasMore = false;
      break;
    }
    if (frame.state == NetstringFrame::State::TooLong) {
      refuse("the request is too long");
    } else if (frame.state == NetstringFrame::State::Malformed) {
      refuse("this is not a netstring");
    } else if (answerOne(frame.payload)) {
      used += frame.consumed;
    }
  }
  return used;
}

std::size_t Peer::answerLines(std::string_view received) {
  std::size_t used = 0;
  while (mayAnswer()) {
    const std::size_t end = received.find('\n', used);
    const std::size_t size = (end == std::string_view::npos ? received.size() : end) - used;
    if (size > m_shared.settings.maxRequest) {
      refuse("the request is too long");
    } else if (end == std::string_view::npos) {
      m_hasMore = false;
      break;
    } else {
      std::string_view line = received.substr(used, size);
      if (line.ends_with('\r')) line.remove_suffix(1);
      if (answerOne(line)) used = end + 1;
    }
  }
  return used;
}

std::size_t Peer::answerPolicies(std::string_view received) {
  std::size_t used = 0;
  while (mayAnswer()) {
    const PolicyFrame frame = parsePolicyFrame(received.substr(used), m_shared.settings.maxRequest);
    if (frame.state == PolicyFrame::State::NeedMore) {
      m_hasMore = false;
      break;
    }
    if (frame.state == PolicyFrame::State::TooLong) {
      refuse("the request is too long");
    } else if (frame.state == PolicyFrame::State::Malformed) {
      refuse("this is not a policy request");
    } else if (answerOne(frame.request)) {
      used += frame.consumed;
    }
  }
  return used;
}

// True when the next request may be answered now; otherwise there may be more of them.
bool Peer::mayAnswer() {
  m_hasMore = true;
  if (m_isEnding || m_isWaiting || m_shared.output.size() > s_muchToSend) return false;
  if (m_left < s_requestsAtOnce && Clock::now() - m_shared.now > s_timeAtOnce) return false;
  return m_left-- > 0;
}

// False when the reply takes long: then the request is to be answered again.
bool Peer::answerOne(std::string_view request) {
  return take(m_shared.lookup.reply(request));
}

bool Peer::answerOne(const PolicyRequest& request) {
  return take(m_shared.lookup.action(request));
}

bool Peer::take(const std::string* reply) {
  m_isWaiting = reply == nullptr;
  if (m_isWaiting) return false;
  append(*reply);
  return true;
}

void Peer::append(std::string_view reply) {
  switch (m_protocol) {
    case Protocol::Netstrings:
      return appendNetstring(m_shared.output, reply);
    case Protocol::Lines:
      m_shared.output.append(reply).append("\n");
      break;
    case Protocol::Policy:
      m_shared.output.append("action=").append(reply).append("\n\n");
      break;
  }
}

// Replies to what is not a request, and closes the connection: nobody knows where the next request
// begins.
void Peer::refuse(std::string_view why) {
  m_shared.metrics.malformedRequest();
  const std::string reason(why);
  append(m_protocol == Protocol::Policy ? deferAction(reason) : Answer::perm(reason).reply());
  m_isEnding = true;
}

// Sends `replies`, or keeps what the mail server does not take now.
void Peer::send(std::string_view replies) {
  while (isOpen() && !replies.empty()) {
    const ssize_t sent = ::send(m_descriptor, replies.data(), replies.size(), MSG_NOSIGNAL);
    if (sent == -1 && s_mustWait()) break;
    if (sent == -1) return close();
    replies.remove_prefix(static_cast<std::size_t>(sent));
  }
  m_output.assign(replies);
}

// Decides what is waited for next.
void Peer::settle() {
  if (!isOpen()) return;
  const bool isSent = m_output.empty();
  if (isSent && m_output.capacity() > s_smallOutput) m_output.shrink_to_fit();
  if (isSent && m_isEnding && !m_isLingering) {
    m_isLingering = true;
    shutdown(m_descriptor, SHUT_WR);
  }
  if (m_isEnding) m_hasMore = false;
  if (isSent && m_hasMore && !m_isWaiting && !m_isQueued) {
    m_isQueued = true;
    m_shared.queue.push_back(this);
  }
  const bool isBusy = !isSent || m_isQueued || m_isWaiting;
  // Who has just connected is about to ask.
  const bool isNew = !m_wasUsed && m_shared.now < m_lastUse + s_drainPatience;
  if (m_isDraining && !isBusy && m_arrived == 0 && m_input.empty() && !isNew) return close();
  setDeadline(std::exchange(m_hadProgress, false));
  const std::uint32_t wanted = isSent ? EPOLLIN : EPOLLOUT;
  waitFor(isSent && isBusy ? 0 : wanted);
}

// Has the thread wait for `events`.
void Peer::waitFor(std::uint32_t events) {
  if (events == m_events) return;
  epoll_event event{};
  event.events = m_events = events;
  event.data.ptr = this;
  if (epoll_ctl(m_shared.events, EPOLL_CTL_MOD, m_descriptor, &event) != 0) close();
}

Peer::Phase Peer::phase() const {
  if (m_isLingering) return Phase::Ending;
  if (!m_output.empty() || m_isWaiting || m_isQueued) return Phase::Reply;
  if (!m_input.empty()) return Phase::Request;
  return m_wasUsed ? Phase::Idle : Phase::First;
}

// Each request must be complete, and all replies to what was read must be taken, in time; a part of
// them does not make that time longer.
void Peer::setDeadline(bool hasProgress) {
  const Phase phase = this->phase();
  if (phase == m_phase && !hasProgress) return;
  m_phase = phase;
  const Settings& settings = m_shared.settings;
  m_deadline = m_shared.now + settings.requestTimeout;
  if (phase == Phase::First) m_deadline = std::min(m_deadline, m_shared.now + settings.idleTimeout);
  if (phase == Phase::Idle) m_deadline = m_shared.now + settings.idleTimeout;
  if (phase == Phase::Ending) m_deadline = std::min(m_deadline, m_shared.now + s_lingering);
  const bool isMailServersTurn = !m_isWaiting && !m_isQueued;
  if (m_isDraining && isMailServersTurn) {
    m_deadline = std::min(m_deadline, m_shared.now + s_drainPatience);
  }
}

}  // namespace Tessel::Serve
