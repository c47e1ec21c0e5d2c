// A thread that answers the mail servers of its connections.
#include "serve/socket/Worker.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>
#include <utility>

namespace Tessel::Serve {

namespace {

constexpr int s_eventsAtOnce = 256;
// How often connections are looked at whose time may be over; while they end.
constexpr std::chrono::milliseconds s_sweepInterval = 1s;
constexpr std::chrono::milliseconds s_drainInterval = 50ms;

// The result of a call for a descriptor. Throws std::system_error when it failed.
int s_checked(int result) {
  if (result != -1) return result;
  throw std::system_error(errno, std::generic_category(), "a worker's descriptor");
}

}  // namespace

Worker::Worker(const Settings& settings, Tables& tables, Metrics& metrics, Log& log,
               Background& background, std::function<void()> closed)
    : m_events(s_checked(epoll_create1(EPOLL_CLOEXEC))),
      m_inbox(std::make_shared<Inbox>()),
      m_lookup(settings, tables, metrics, log,
               Lookup::Helpers{
                   background,
                   [inbox = m_inbox](std::function<void()> task) { inbox->post(std::move(task)); },
                   [this] {
                     for (Peer& peer : m_peers) peer.resume();
                   }}),
      m_shared{settings, m_lookup, metrics, m_events.get(), {}, {}, Clock::now(), {}},
      m_closed(std::move(closed)) {
  epoll_event event{};
  event.events = EPOLLIN;
  s_checked(epoll_ctl(m_events.get(), EPOLL_CTL_ADD, m_inbox->descriptor(), &event));
  m_thread = std::thread([this] { run(); });
}

Worker::~Worker() {
  // The connections end with the object: events of them may be waiting to be handled.
  m_inbox->post([this] { m_isEnding = true; });
  m_thread.join();
}

void Worker::take(int descriptor, Protocol protocol, bool isOneTooMany) {
  ++m_count;
  m_inbox->post(
      [this, descriptor, protocol, isOneTooMany] { open(descriptor, protocol, isOneTooMany); });
}

void Worker::drain() {
  m_inbox->post([this] {
    m_isDraining = true;
    for (Peer& peer : m_peers) peer.drain();
  });
}

bool Worker::isAlive() {
  if (m_isAsked.exchange(true)) return false;
  m_inbox->post([this] { m_isAsked = false; });
  return true;
}

Worker::Inbox::Inbox() : m_wakeUp(s_checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

void Worker::Inbox::post(std::function<void()> task) {
  m_tasks.with([&](auto& tasks) { tasks.push_back(std::move(task)); });
  // Fails only when so many wake-ups are waiting that one more makes no difference.
  const std::uint64_t one = 1;
  static_cast<void>(!write(m_wakeUp.get(), &one, sizeof(one)));
}

void Worker::Inbox::runTasks() {
  std::uint64_t count{};
  static_cast<void>(!read(m_wakeUp.get(), &count, sizeof(count)));
  const auto tasks = m_tasks.with([](auto& waiting) { return std::exchange(waiting, {}); });
  for (const std::function<void()>& task : tasks) task();
}

void Worker::open(int descriptor, Protocol protocol, bool isOneTooMany) {
  Peer& added = m_peers.emplace_back(descriptor, protocol, m_shared, [this] {
    --m_count;
    m_closed();
  });
  added.start();
  if (m_isDraining) added.drain();
  if (!isOneTooMany) return;
  Peer* idlest = &added;
  for (Peer& peer : m_peers) {
    const bool isLonger = peer.isIdle() && peer.lastUse() < idlest->lastUse();
    if (isLonger) idlest = &peer;
  }
  m_shared.metrics.madeRoom();
  idlest->close();
}

void Worker::run() {
  std::array<epoll_event, s_eventsAtOnce> events{};
  Clock::time_point lastSweep = Clock::now();
  while (!m_isEnding) {
    const auto interval = m_isDraining ? s_drainInterval : s_sweepInterval;
    const auto patience = m_shared.queue.empty() ? interval : 0ms;
    const int count = epoll_wait(m_events.get(), events.data(), s_eventsAtOnce,
                                 static_cast<int>(patience.count()));
    m_shared.now = Clock::now();
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      if (event.data.ptr != nullptr) {
        static_cast<Peer*>(event.data.ptr)->proceed(event.events);
      } else {
        m_inbox->runTasks();
      }
    }
    // One at a time: who asks for little comes before who asks for much.
    if (!m_shared.queue.empty()) {
      Peer* const next = m_shared.queue.front();
      m_shared.queue.pop_front();
      next->goOn();
    }
    if (m_shared.now < lastSweep + interval) continue;
    sweep();
    lastSweep = m_shared.now;
  }
  // Hands over which aliases were asked for.
  m_lookup.sweep(m_shared.now);
}

// Closes connections that are late, forgets those that are closed, and gives memory back.
void Worker::sweep() {
  for (Peer& peer : m_peers) peer.endIfLate(m_shared.now);
  m_peers.remove_if([](const Peer& peer) { return peer.canBeRemoved(); });
  m_lookup.sweep(m_shared.now);
}

}  // namespace Tessel::Serve
