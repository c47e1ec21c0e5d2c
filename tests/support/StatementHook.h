// A look at each statement before it is sent, and faults instead of it.
#ifndef TSL_TESTS_SUPPORT_STATEMENTHOOK_H
#define TSL_TESTS_SUPPORT_STATEMENTHOOK_H

#include <functional>
#include <stdexcept>
#include <string>

#include "base/Mutex.h"

namespace Tessel::Testing {

// While one lives, it is called with each statement that the library executes, by the thread that
// does, before the statement is sent. What it throws comes out of the execution, and nothing is
// sent then. It is not called for what it executes itself. One at a time.
class StatementHook {
 public:
  using Before = std::function<void(const std::string& statement)>;

  explicit StatementHook(Before before);
  ~StatementHook();
  StatementHook(const StatementHook&) = delete;
  StatementHook& operator=(const StatementHook&) = delete;

  // For the stand-in of Query::execute().
  void call(const std::string& statement);

 private:
  Before m_before;
};

// True when no thread holds `mutex`. A recursive mutex is free for its holder: another thread asks.
bool isFree(Mutex& mutex);
// True as soon as `isFree`; false when that takes ten seconds.
bool becomesFree(Mutex& mutex);

// A cache of the type `Cache` that looks at `mutex` whenever something is added, or throws then.
template <class Cache>
class WatchingCache : public Cache {
 public:
  WatchingCache(unsigned int capacity, Mutex& mutex) : Cache(capacity), m_watched(mutex) {}

  void add(const typename Cache::Entry::first_type& key,
           const typename Cache::Entry::second_type& value) override {
    if (m_fails) throw std::runtime_error("no Exception");
    ++m_added;
    m_freeWhenAdding += isFree(m_watched) ? 1 : 0;
    Cache::add(key, value);
  }

  bool m_fails = false;
  int m_added = 0;
  int m_freeWhenAdding = 0;

 private:
  Mutex& m_watched;
};

}  // namespace Tessel::Testing

#endif
