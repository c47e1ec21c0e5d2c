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
// How often connections are looked at whose time may be over.
constexpr std::chrono::milliseconds s_sweepInterval{1000};

}  // namespace

Worker::Descriptor::Descriptor(int number) : m_number(number) {
  if (number == -1)
    throw std::system_error(errno, std::generic_category(), "a worker's descriptor");
}

Worker::Descriptor::~Descriptor() {
  ::close(m_number);
}

Worker::Worker(const Settings& settings, Tables& tables, Metrics& metrics, Log& log,
               std::function<void()> closed)
    : m_events(epoll_create1(EPOLL_CLOEXEC)),
      m_wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_lookup(settings, tables, metrics, log),
      m_shared{settings, m_lookup, metrics, m_events.number(), {}, {}, Clock::now()},
      m_closed(std::move(closed)) {
  epoll_event event{};
  event.events = EPOLLIN;
  if (epoll_ctl(m_events.number(), EPOLL_CTL_ADD, m_wakeUp.number(), &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
  m_thread = std::thread([this] { run(); });
}

Worker::~Worker() {
  // The connections end with the object: events of them may be waiting to be handled.
  post([this] { m_isEnding = true; });
  m_thread.join();
}

void Worker::take(int descriptor, bool isLineProtocol) {
  ++m_count;
  post([this, descriptor, isLineProtocol] {
    const auto closed = [this] {
      --m_count;
      m_closed();
    };
    m_peers.emplace_back(descriptor, isLineProtocol, m_shared, closed).start();
  });
}

void Worker::drain() {
  post([this] {
    for (Peer& peer : m_peers) peer.drain();
  });
}

bool Worker::isAlive() {
  if (m_isAsked.exchange(true)) return false;
  post([this] { m_isAsked = false; });
  return true;
}

// Has the thread run `task`.
void Worker::post(std::function<void()> task) {
  m_tasks.with([&](auto& tasks) { tasks.push_back(std::move(task)); });
  // Fails only when so many wake-ups are waiting that one more makes no difference.
  const std::uint64_t one = 1;
  static_cast<void>(!write(m_wakeUp.number(), &one, sizeof(one)));
}

void Worker::runTasks() {
  std::uint64_t count = 0;
  static_cast<void>(!read(m_wakeUp.number(), &count, sizeof(count)));
  const auto tasks = m_tasks.with([](auto& waiting) { return std::exchange(waiting, {}); });
  for (const std::function<void()>& task : tasks) task();
}

void Worker::run() {
  std::array<epoll_event, s_eventsAtOnce> events{};
  Clock::time_point nextSweep = Clock::now() + s_sweepInterval;
  while (!m_isEnding) {
    const int count = epoll_wait(m_events.number(), events.data(), s_eventsAtOnce,
                                 static_cast<int>(s_sweepInterval.count()));
    m_shared.now = Clock::now();
    for (int i = 0; i < count; ++i) {
      void* const peer = events[static_cast<std::size_t>(i)].data.ptr;
      if (peer != nullptr) {
        static_cast<Peer*>(peer)->proceed();
      } else {
        runTasks();
      }
    }
    if (m_shared.now < nextSweep) continue;
    sweep();
    nextSweep = m_shared.now + s_sweepInterval;
  }
}

// Closes connections that are late, and forgets those that are closed.
void Worker::sweep() {
  for (Peer& peer : m_peers) peer.endIfLate(m_shared.now);
  m_peers.remove_if([](const Peer& peer) { return !peer.isOpen(); });
}

}  // namespace Tessel::Serve
