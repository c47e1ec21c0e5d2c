// A thread that answers the mail servers of its connections.
#ifndef TSL_TOOLS_SERVE_SOCKET_WORKER_H
#define TSL_TOOLS_SERVE_SOCKET_WORKER_H

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "disk/Descriptor.h"
#include "serve/answer/Lookup.h"
#include "serve/base/Background.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"
#include "serve/socket/Peer.h"

namespace Tessel::Serve {

// Any thread may call the operations; the connections are used by the worker's thread alone.
//
// The thread waits by epoll(7) itself. The completions of an event library took four system calls
// for each request instead of three, and up to 1.4 times the time. See `serveLoad` of the
// benchmarks.
class Worker {
 public:
  // Starts the thread. All references must outlive the object. `closed` is called on the thread
  // after each connection that was closed. Throws std::system_error when the thread cannot be
  // started.
  Worker(const Settings& settings, Tables& tables, Metrics& metrics, Log& log,
         Background& background, std::function<void()> closed);
  // Closes all connections at once, and ends the thread.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Takes over the socket `descriptor` of a connection. With `isOneTooMany` the connection that was
  // not used for longest is closed in its place; if all are busy, the new one.
  void take(int descriptor, Protocol protocol, bool isOneTooMany = false);
  // Has each connection answer what it was asked, then closes it.
  void drain();
  // Asks the thread for a sign of life. True if it has given the last one.
  bool isAlive();
  // Number of connections.
  [[nodiscard]] std::size_t connections() const noexcept { return m_count; }

 private:
  // A descriptor that is closed with the object.
  // Tasks for the thread. Those who post may outlive the worker.
  class Inbox {
   public:
    Inbox();
    // Has the thread run `task`. Any thread.
    void post(std::function<void()> task);
    void runTasks();
    [[nodiscard]] int descriptor() const noexcept { return m_wakeUp.get(); }

   private:
    const Tool::Descriptor m_wakeUp;  // Of eventfd: there are tasks.
    Guarded<std::vector<std::function<void()>>> m_tasks;
  };

  void open(int descriptor, Protocol protocol, bool isOneTooMany);
  void run();
  void sweep();

  const Tool::Descriptor m_events;  // Of epoll. Its events carry a `Peer`, or null for the inbox.
  const std::shared_ptr<Inbox> m_inbox;
  Lookup m_lookup;
  Peer::Shared m_shared;
  const std::function<void()> m_closed;
  std::list<Peer> m_peers;  // The next sweep removes those that are closed.
  bool m_isDraining = false;
  bool m_isEnding = false;
  std::atomic<std::size_t> m_count = 0;
  std::atomic<bool> m_isAsked = false;
  std::thread m_thread;
};

}  // namespace Tessel::Serve

#endif
