// One connection of a mail server.
#ifndef TSL_TOOLS_SERVE_SOCKET_PEER_H
#define TSL_TOOLS_SERVE_SOCKET_PEER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "serve/answer/Lookup.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// Reads requests and writes a reply to each, in order. While replies wait for the mail server to
// take them, or one takes long to make, nothing more is read from it. Many requests at once are
// answered a few at a time, so that others need not wait for all of them. It has no buffers between
// requests, so thousands of idle connections cost next to nothing. One thread.
class Peer {
 public:
  // What the connections of a thread share; the references must outlive them.
  struct Shared {
    const Settings& settings;
    Lookup& lookup;
    Metrics& metrics;
    int events;               // The epoll descriptor that waits for all of them.
    std::string input;        // Room for what is read at once.
    std::string output;       // Replies that are being put together.
    Clock::time_point now{};  // When the events that are being handled were taken.
    std::deque<Peer*> queue;  // Those with more requests to answer.
  };

  // Takes over the socket `descriptor`. `shared` must outlive the object. `closed` is called once,
  // when the connection is closed.
  Peer(int descriptor, Protocol protocol, Shared& shared, std::function<void()> closed);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Has the thread wait for requests; the events carry the address of the object, which must stay
  // until it is closed and the events that were taken are handled.
  void start();
  // Handles the events `events` of epoll: reads and answers, or sends what waits.
  void proceed(std::uint32_t events);
  // Answers the next requests of those that have arrived. The object was in the queue.
  void goOn();
  // Goes on if it waits for a reply that takes long.
  void resume();
  // Closes the connection if its time is over at `now`.
  void endIfLate(Clock::time_point now);
  // Answers what has arrived, then closes the connection. Waits a moment for a mail server that is
  // silent.
  void drain();
  // Closes the connection at once.
  void close();
  [[nodiscard]] bool isOpen() const { return m_descriptor != -1; }
  // False while the queue or events may name the object.
  [[nodiscard]] bool canBeRemoved() const { return !isOpen() && !m_isQueued; }
  // True when nothing is being done for the mail server; since `lastUse`.
  [[nodiscard]] bool isIdle() const;
  [[nodiscard]] Clock::time_point lastUse() const { return m_lastUse; }

 private:
  // What the time of a connection is measured for.
  enum class Phase {
    First,    // The first request, from the beginning.
    Request,  // The rest of a request.
    Reply,    // That a reply is made, and taken.
    Idle,     // The next request.
    Ending,   // That the mail server reads the last reply.
  };

  void receive();
  void dropInput();
  void answerAll(std::string_view received);
  std::size_t answerFrames(std::string_view received);
  std::size_t answerLines(std::string_view received);
  std::size_t answerPolicies(std::string_view received);
  bool mayAnswer();
  bool answerOne(std::string_view request);
  bool answerOne(const PolicyRequest& request);
  bool take(const std::string* reply);
  void append(std::string_view reply);
  void refuse(std::string_view why);
  void send(std::string_view replies);
  void settle();
  void waitFor(std::uint32_t events);
  void setDeadline(bool hasProgress);
  [[nodiscard]] Phase phase() const;

  int m_descriptor;  // -1 when it is closed.
  Shared& m_shared;
  std::function<void()> m_closed;  // Empty after its call.
  const Protocol m_protocol;
  std::string m_input;         // What was not answered yet; mostly the beginning of a request.
  std::string m_output;        // What the mail server has not taken yet.
  bool m_hasMore = false;      // `m_input` may hold whole requests.
  bool m_isQueued = false;     // It is in the queue.
  bool m_isWaiting = false;    // For a reply that takes long.
  bool m_isEnding = false;     // The connection is closed when `m_output` is sent.
  bool m_isLingering = false;  // It is sent.
  bool m_isDraining = false;
  std::size_t m_arrived = 0;  // Bytes that had arrived when draining began, and were not read yet.
  int m_left = 0;             // Requests that may be answered now.
  bool m_wasUsed = false;     // It had a whole request.
  bool m_hadProgress = false;
  std::uint32_t m_events = 0;  // Those that the thread waits for.
  Phase m_phase = Phase::First;
  Clock::time_point m_deadline;
  Clock::time_point m_lastUse;
};

}  // namespace Tessel::Serve

#endif
