// The bounded, thread-safe key/value cache in front of every table.
#ifndef TSL_CORE_LRUCACHE_H
#define TSL_CORE_LRUCACHE_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "core/Readers.h"

namespace Tessel {

// Cache of at most `capacity` entries; the least recently used one makes room. An entry is used by
// adding it and by a hit of `find`, not by a walk and not by adding a key that is present.
//
// Invariants: every list entry has exactly one index node with an equal key, and the reverse;
// `m_size` is the number of list entries; after `add`, `m_size <= m_capacity`.
//
// Threads: any thread may call any operation but those named `NoLock`, which need the lock held
// exclusively by the caller. `find` and `begin` hand out iterators without the lock: what another
// thread evicts or removes ends under them. `copyOf` and `keyOf` read without the lock as well, and
// are safe: see there.
//
// `Key` must be copyable and ordered by `operator<`, `Value` copyable; `keyOf` also compares values
// by `operator==`. When copying one of them throws, the cache is as it was before and the lock is
// released.
template <class Key, class Value>
class LRUCache {
 public:
  using Entry = std::pair<Key, Value>;
  using iterator = typename std::list<Entry>::iterator;

  // An empty cache. Capacity 0 is legal: such a cache never keeps anything. Throws
  // boost::thread_resource_error when the lock cannot be created.
  explicit LRUCache(unsigned int capacity) : m_capacity(capacity) {}
  LRUCache(const LRUCache&) = delete;
  LRUCache& operator=(const LRUCache&) = delete;
  virtual ~LRUCache() = default;

  // Removes every entry.
  virtual void clear() {
    exclusively([this] {
      s_count(m_changes);
      m_index.clear();
      m_size = 0;
      m_retired.splice(m_retired.end(), m_recent);
    });
  }

  // As `find`, for a caller that holds the lock exclusively.
  virtual iterator findNoLock(const Key& key) const {
    const auto node = m_index.find(key);
    if (node == m_index.end()) return m_recent.end();
    if (node->second != m_recent.begin()) {
      s_count(m_moves);
      m_recent.splice(m_recent.begin(), m_recent, node->second);
    }
    return m_recent.begin();
  }

  // The entry of `key`, which becomes the most recently used one, or `end()`. The lock is taken
  // exclusively, because a hit moves the entry.
  virtual iterator find(const Key& key) const {
    const ExclusiveLock lock(m_mutex);
    return findNoLock(key);
  }

  // As `add`, for a caller that holds the lock exclusively.
  virtual void addNoLock(const Key& key, const Value& value) {
    if (m_capacity == 0) {
      // A new entry would be trimmed at once, so nobody can notice that it never was in the list.
      // A copy that throws can be noticed, so the copies are made.
      [[maybe_unused]] const Entry entry(key, value);
      return;
    }
    const auto node = m_index.lower_bound(key);
    // Deliberate: the first value of a key stays, and adding it again is not a use.
    // Pinned by LRUCache.TheFirstValueOfAKeyStays.
    if (node == m_index.end() || key < node->first) insertFront(node, key, value);
    // Also for a key that is present: an over-full cache comes back under its capacity.
    while (m_size > m_capacity) removeNoLock(m_recent.back().first);
  }

  // Adds a copy of `key` and `value` as the most recently used entry, and trims the cache to its
  // capacity from the least recently used end. A key that is present keeps its value and place.
  virtual void add(const Key& key, const Value& value) {
    exclusively([&] { addNoLock(key, value); });
  }

  // Removes the entry of `key`, if there is one.
  virtual void remove(const Key& key) {
    exclusively([&] { removeNoLock(key); });
  }

  // As `remove`, for a caller that holds the lock exclusively.
  void removeNoLock(const Key& key) {
    const auto node = m_index.find(key);
    if (node == m_index.end()) return;
    const iterator entry = node->second;
    s_count(m_changes);
    m_index.erase(node);
    --m_size;
    // `key` may be the entry's own key: it is not read after this line.
    m_retired.splice(m_retired.end(), m_recent, entry);
    reclaim();
  }

  // Number of entries.
  [[nodiscard]] unsigned int size() const {
    const SharedLock lock(m_mutex);
    return m_size;
  }

  // The most entries that it keeps.
  [[nodiscard]] unsigned int capacity() const { return m_capacity; }

  // Position of the most recently used entry, or `end()`. The lock is not held afterwards.
  iterator begin() { return first(); }

  // The position after the last entry. It never changes, so no lock is needed.
  iterator end() const { return m_recent.end(); }

  // A copy of the value of `key`, by `find`; nothing on a miss. It is made after the lock was
  // released, from an entry that stays alive meanwhile even when another thread evicts it.
  [[nodiscard]] std::optional<Value> copyOf(const Key& key) const {
    ExclusiveLock lock(m_mutex);
    const iterator entry = findNoLock(key);
    if (entry == m_recent.end()) return std::nullopt;
    const Readers::Inside inside(m_readers, Readers::Inside::Locked());
    lock.unlock();
    return entry->second;
  }

  // A copy of the key of the most recently used entry whose value equals `value`; nothing when
  // there is none. This walks from `begin()` to `end()` without the lock, and is no use of the
  // entry. An entry that is in the cache all the while is found, whatever other threads do.
  //
  // A walk misses what another thread moves to the front meanwhile. So one that found nothing is
  // believed only if nothing was moved.
  //
  // Inline: as a call it makes a walk over ten entries a twentieth slower.
  [[nodiscard, gnu::always_inline]] std::optional<Key> keyOf(const Value& value) const {
    const Readers::Inside inside(m_readers);
    // Read before the first entry is: what is moved in between counts as moved during the walk.
    const State start = state();
    const auto found = walk(wholeWalk(), start, value);
    if (found && *found != m_recent.end()) return (*found)->first;
    if (state() == start) return std::nullopt;
    return keyOfDisturbed(value, start, found.has_value());
  }

  // How many entries were added or taken out so far. Who found nothing, and sees the number
  // unchanged afterwards, knows that no other thread has added it in between.
  [[nodiscard]] std::uint64_t changes() const { return m_changes.load(std::memory_order_acquire); }

 private:
  using ExclusiveLock = boost::unique_lock<boost::shared_mutex>;
  using SharedLock = boost::shared_lock<boost::shared_mutex>;
  using Index = std::map<Key, iterator>;
  using Counter = std::atomic<std::uint64_t>;

  // The list as a walk without the lock can know it: unchanged while both numbers are.
  struct State {
    std::uint64_t changes;
    std::uint64_t moves;
    bool operator==(const State&) const = default;
  };

  // Looks of `keyOf` without the lock. Hardly a lookup needs the third, even where several threads
  // do nothing but look up.
  static constexpr int s_looks = 4;
  // How long a writer waits before it looks whether the readers have left. They are inside for the
  // time of one walk or of one copy.
  static constexpr std::chrono::microseconds s_pause{50};

  // Counts what is about to be done to the list. Only the holder of the exclusive lock writes.
  static void s_count(Counter& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }

  [[nodiscard]] State state() const { return {changes(), m_moves.load(std::memory_order_acquire)}; }

  iterator first() const {
    const SharedLock lock(m_mutex);
    return m_recent.begin();
  }

  // The entry behind `entry`, which may be the end.
  //
  // This reads one link of the list while another thread may be writing it: a hit that moves an
  // entry, an entry that is added or taken out. It is sound on x86-64. A link is an aligned
  // pointer, which is read as it was before or as it is after. Stores become visible in their
  // order and loads are made in theirs, and the compiler keeps both, so a walk that comes to an
  // entry by a new link also sees that the move or change was counted, since that came first.
  // Whatever is moved, an entry that is not is still reached from every other one: the walk skips
  // what is moved and no more, or is carried back to the front.
  __attribute__((no_sanitize("thread"))) static iterator s_next(iterator entry) {
    ++entry;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return entry;
  }

  // Looks at up to `count` entries from the front, for one whose value is `value`. Gives its place,
  // or the end when that was reached; nothing when there was no end, or when the list is not that
  // of `start` any more in that an entry was added or taken out: the next one may then be one of
  // m_retired, or not wholly known to this processor. The caller is a reader.
  std::optional<iterator> walk(std::uint64_t count, const State& start, const Value& value) const {
    iterator entry = first();
    for (; count > 0; --count) {
      if (changes() != start.changes) return std::nullopt;
      if (entry == m_recent.end() || entry->second == value) return entry;
      entry = s_next(entry);
    }
    return std::nullopt;
  }

  // Steps of a walk over everything, with as many to spare for being carried back to the front.
  [[nodiscard]] std::uint64_t wholeWalk() const { return 2ULL * m_capacity; }

  // The rest of `keyOf` when a first look, from `start` on, found nothing and was disturbed.
  // `seen`: it saw everything that was in the list at `start` and was not moved since.
  //
  // Of what was seen it is enough to look at the front again, at as many entries as were moved
  // since. Where the rest of the list has changed, because an entry was added or taken out,
  // everything is looked at again. After a few disturbed looks the last one is taken under the
  // shared lock.
  [[nodiscard]] std::optional<Key> keyOfDisturbed(const Value& value, State start,
                                                  bool seen) const {
    for (int look = 1; look < s_looks; ++look) {
      const State now = state();
      const bool again = seen && now.changes == start.changes;
      if (!again) start = now;
      const auto found = walk(again ? now.moves - start.moves : wholeWalk(), now, value);
      if (found && *found != m_recent.end()) return (*found)->first;
      if (state() == now) return std::nullopt;
      seen = again || found.has_value();
    }
    const SharedLock lock(m_mutex);
    const auto found = std::find_if(m_recent.begin(), m_recent.end(),
                                    [&value](const Entry& entry) { return entry.second == value; });
    if (found == m_recent.end()) return std::nullopt;
    return found->first;
  }

  // Inserts a new front entry whose index node goes before `hint`, or changes nothing.
  void insertFront(typename Index::iterator hint, const Key& key, const Value& value) {
    std::list<Entry> entry;
    entry.emplace_front(key, value);
    m_index.emplace_hint(hint, key, entry.begin());
    // Behind the making of the entry: who sees the number sees the whole entry.
    s_count(m_changes);
    m_recent.splice(m_recent.begin(), entry);
    ++m_size;
  }

  // How many entries were taken out and are still alive.
  [[nodiscard]] std::size_t waiting() const { return m_retired.size() + m_leaving.size(); }

  // Destroys the entries that were taken out of the list and that no reader can still look at: all
  // of them when there is no reader. The caller holds the lock exclusively.
  void reclaim() {
    // Up to two times: m_leaving makes room for what waits in m_retired.
    while (waiting() > 0 && m_readers.haveLeft()) {
      m_leaving.clear();
      m_leaving.swap(m_retired);
      m_readers.watch();
    }
  }

  // Runs `change` under the exclusive lock. When readers that do not leave keep more entries alive
  // than the cache may hold, the caller waits for them: that bounds the memory.
  template <class Change>
  void exclusively(Change change) {
    ExclusiveLock lock(m_mutex);
    change();
    reclaim();
    while (waiting() > m_capacity) {
      lock.unlock();
      std::this_thread::sleep_for(s_pause);
      lock.lock();
      reclaim();
    }
  }

  // The first five are part of the binary interface.
  mutable boost::shared_mutex m_mutex;  // Guards everything below but the atomic numbers.
  std::uint32_t m_size = 0;
  const std::uint32_t m_capacity;
  mutable std::list<Entry> m_recent;  // Most recently used first.
  Index m_index;

  mutable Counter m_moves{0};  // Entries that a hit moved to the front.
  std::list<Entry> m_retired;  // Taken out since the readers are watched.
  std::list<Entry> m_leaving;  // Taken out before: destroyed when those have left.
  mutable Readers m_readers;
  // Read at every step of a walk, so it is far from what hits write.
  Counter m_changes{0};  // Entries that were added or taken out.
};

}  // namespace Tessel

#endif
