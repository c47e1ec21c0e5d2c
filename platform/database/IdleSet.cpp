// IdleSet: ageing, and what happens to idle connections at a fork and at process exit.
#include "database/IdleSet.h"

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <utility>

namespace Tessel::Database {

namespace {

// Most connections kept: as many as a small worker pool opens and closes in turn.
constexpr std::size_t s_maxEntries = 8;
// Longest time that one is kept unused: well under any server's own idle time-out.
constexpr std::chrono::seconds s_maxAge{5};

std::atomic<unsigned int> s_forkCount{0};
std::atomic<bool> s_pastExit{false};

}  // namespace

IdleSet& IdleSet::instance() {
  static IdleSet* const s_instance = new IdleSet;
  return *s_instance;
}

IdleSet::IdleSet() {
  // The client library first: what it registers for process exit must run after closeAtExit().
  Handle::initialiseLibrary();
  m_entries.reserve(s_maxEntries);
  pthread_atfork(&IdleSet::beforeFork, &IdleSet::inParent, &IdleSet::inChild);
  std::atexit([] { closeAtExit(); });
}

unsigned int IdleSet::forkCount() noexcept {
  return s_forkCount.load(std::memory_order_relaxed);
}

bool IdleSet::isPastExit() noexcept {
  return s_pastExit.load();
}

std::unique_ptr<Handle> IdleSet::take(const std::string& key) {
  Entries outdated;
  while (true) {
    std::unique_ptr<Handle> handle;
    {
      const std::lock_guard<std::mutex> guard(m_mutex);
      separateOutdated(outdated);
      // The newest first: the others get their chance to age out.
      for (std::size_t i = m_entries.size(); i > 0 && !handle; --i) {
        if (m_entries[i - 1].key != key) continue;
        handle = std::move(m_entries[i - 1].handle);
        m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(i - 1));
      }
    }
    if (!handle || handle->finishReuse()) return handle;
  }
}

bool IdleSet::hasRoom() {
  Entries outdated;  // Closed after the lock is released, which is destroyed first.
  const std::lock_guard<std::mutex> guard(m_mutex);
  separateOutdated(outdated);
  return !m_closed && m_entries.size() < s_maxEntries;
}

void IdleSet::give(std::unique_ptr<Handle> handle, const std::string& key) noexcept {
  try {
    if (!hasRoom() || !handle->startReuse()) return;
    Entry entry{std::move(handle), key, Clock::now()};
    const std::lock_guard<std::mutex> guard(m_mutex);
    // Another thread may have filled the set, or the process begun to exit, since the first look.
    if (m_closed || m_entries.size() >= s_maxEntries) {
      handle = std::move(entry.handle);
      return;
    }
    m_entries.push_back(std::move(entry));
  } catch (const std::exception&) {
    // Out of memory: the connection is closed instead of kept.
  }
}

void IdleSet::separateOutdated(Entries& outdated) {
  const Clock::time_point oldest = Clock::now() - s_maxAge;
  for (std::size_t i = 0; i < m_entries.size();) {
    if (m_entries[i].since >= oldest && !m_entries[i].handle->isForeign()) {
      ++i;
      continue;
    }
    outdated.push_back(std::move(m_entries[i]));
    m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

void IdleSet::closeAtExit() noexcept {
  IdleSet& set = instance();
  Entries entries;
  {
    const std::lock_guard<std::mutex> guard(set.m_mutex);
    set.m_closed = true;
    entries.swap(set.m_entries);
  }
  entries.clear();
  s_pastExit.store(true);
}

void IdleSet::beforeFork() noexcept {
  instance().m_mutex.lock();
}

void IdleSet::inParent() noexcept {
  instance().m_mutex.unlock();
}

// Only async-signal-safe calls: the parent may have other threads. The entries count as foreign
// from here on and are freed at the next look at the set.
void IdleSet::inChild() noexcept {
  s_forkCount.fetch_add(1, std::memory_order_relaxed);
  for (const Entry& entry : instance().m_entries) entry.handle->hangUp();
  instance().m_mutex.unlock();
}

}  // namespace Tessel::Database
