// One connection of a mail server.
#ifndef TSL_TOOLS_SERVE_SOCKET_PEER_H
#define TSL_TOOLS_SERVE_SOCKET_PEER_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "serve/answer/Lookup.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// Reads requests and writes a reply to each, in order. While replies wait for the mail server to
// take them, nothing more is read from it. It has no buffers between requests, so thousands of idle
// connections cost next to nothing. One thread.
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
  };

  // Takes over the socket `descriptor`. `shared` must outlive the object. `closed` is called once,
  // when the connection is closed.
  Peer(int descriptor, bool isLineProtocol, Shared& shared, std::function<void()> closed);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Has the thread wait for requests; the events carry the address of the object, which must stay
  // until it is closed and the events that were taken are handled.
  void start();
  // Handles an event: reads and answers, or sends what waits.
  void proceed();
  // Closes the connection if its time is over at `now`.
  void endIfLate(Clock::time_point now);
  // Answers what has arrived, then closes the connection.
  void drain();
  // Closes the connection at once.
  void close();
  [[nodiscard]] bool isOpen() const { return m_descriptor != -1; }

 private:
  std::size_t receive();
  void take(std::string_view received);
  void finish();
  void sendAtOnce();
  void send();
  void waitForRoom(bool isWanted);
  void answerAll(std::string_view received);
  std::size_t answerFrames(std::string_view received);
  std::size_t answerLines(std::string_view received);
  void answerOne(std::string_view request);
  void refuse(std::string_view why);
  [[nodiscard]] bool hasMuchToSend() const;
  void setDeadline();

  int m_descriptor;  // -1 when it is closed.
  Shared& m_shared;
  std::function<void()> m_closed;  // Empty after its call.
  const bool m_isLineProtocol;
  std::string m_input;              // The beginning of a request.
  std::string m_output;             // What the mail server has not taken yet.
  bool m_hasMore = false;           // `m_input` may hold whole requests, which wait for `m_output`.
  bool m_isEnding = false;          // The connection is closed when `m_output` is sent.
  bool m_isWaitingForRoom = false;  // Rather than for requests.
  bool m_isDraining = false;
  Clock::time_point m_deadline;
  bool m_hadInput = false;  // `m_deadline` is that of a request that has begun.
};

}  // namespace Tessel::Serve

#endif
