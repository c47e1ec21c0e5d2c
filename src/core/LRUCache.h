// The bounded, thread-safe key/value cache in front of every table.
#ifndef TSL_CORE_LRUCACHE_H
#define TSL_CORE_LRUCACHE_H

#include <cstdint>
#include <list>
#include <map>
#include <utility>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

namespace Tessel {

// Cache of at most `capacity` entries; the least recently used one makes room. An entry is used by
// adding it and by a hit of `find`, not by a walk and not by adding a key that is present.
//
// Invariants: every list entry has exactly one index node with an equal key, and the reverse;
// `m_size` is the number of list entries; after `add`, `m_size <= m_capacity`.
//
// Threads: any thread may call any operation but those named `NoLock`, which need the lock held
// exclusively by the caller. Iterators are handed out without the lock: an entry that another
// thread evicts or removes ends under its reader. `find` followed by a copy, and the walk from
// `begin()` to `end()`, are unprotected on purpose: callers accept it and gain lock-free reading.
//
// `Key` must be copyable and ordered by `operator<`, `Value` copyable. When copying one of them
// throws, the cache is as it was before and the lock is released.
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
    const ExclusiveLock lock(m_mutex);
    m_recent.clear();
    m_index.clear();
    m_size = 0;
  }

  // As `find`, for a caller that holds the lock exclusively.
  virtual iterator findNoLock(const Key& key) const {
    const auto node = m_index.find(key);
    if (node == m_index.end()) return m_recent.end();
    if (node->second != m_recent.begin()) {
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
    // What a cache of capacity 0 takes in leaves it at once: the copies can be spared.
    if (m_capacity == 0) return;
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
    // A cache that keeps nothing has nothing to guard.
    if (m_capacity == 0) return addNoLock(key, value);
    const ExclusiveLock lock(m_mutex);
    addNoLock(key, value);
  }

  // Removes the entry of `key`, if there is one.
  virtual void remove(const Key& key) {
    const ExclusiveLock lock(m_mutex);
    removeNoLock(key);
  }

  // As `remove`, for a caller that holds the lock exclusively.
  void removeNoLock(const Key& key) {
    const auto node = m_index.find(key);
    if (node == m_index.end()) return;
    // `key` may be the entry's own key: it is not read after this line.
    m_recent.erase(node->second);
    m_index.erase(node);
    --m_size;
  }

  // Number of entries.
  [[nodiscard]] unsigned int size() const {
    const SharedLock lock(m_mutex);
    return m_size;
  }

  // The most entries that it keeps.
  [[nodiscard]] unsigned int capacity() const { return m_capacity; }

  // Position of the most recently used entry, or `end()`. The lock is not held afterwards.
  iterator begin() {
    const SharedLock lock(m_mutex);
    return m_recent.begin();
  }

  // The position after the last entry. It never changes, so no lock is needed.
  iterator end() const { return m_recent.end(); }

 private:
  using ExclusiveLock = boost::unique_lock<boost::shared_mutex>;
  using SharedLock = boost::shared_lock<boost::shared_mutex>;
  using Index = std::map<Key, iterator>;

  // Inserts a new front entry whose index node goes before `hint`, or changes nothing.
  void insertFront(typename Index::iterator hint, const Key& key, const Value& value) {
    m_recent.emplace_front(key, value);
    try {
      m_index.emplace_hint(hint, key, m_recent.begin());
    } catch (...) {
      m_recent.pop_front();
      throw;
    }
    ++m_size;
  }

  mutable boost::shared_mutex m_mutex;  // Guards everything below.
  std::uint32_t m_size = 0;
  const std::uint32_t m_capacity;
  mutable std::list<Entry> m_recent;  // Most recently used first.
  Index m_index;
};

}  // namespace Tessel

#endif
