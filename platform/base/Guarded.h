// A value that nobody reaches without holding its lock.
#ifndef TSL_BASE_GUARDED_H
#define TSL_BASE_GUARDED_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "base/ThreadAnnotations.h"

namespace Tessel {

// A value with the mutex that guards it: there is no way to the value but `with`. What is called
// there must not keep a reference to it, nor call this object again, whose mutex is not recursive.
// Any thread may call any operation.
template <class Value>
class Guarded {
 public:
  template <class... Arguments>
  explicit Guarded(Arguments&&... arguments) : m_value(std::forward<Arguments>(arguments)...) {}
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  // What `use` returns, called with the value under the lock.
  template <class Use>
  auto with(Use use) {
    const Hold hold(m_lock);
    return use(m_value);
  }
  template <class Use>
  auto with(Use use) const {
    const Hold hold(m_lock);
    return use(m_value);
  }

  // Waits until `isReady`, called with the value under the lock, returns true; false when it does
  // not within `patience`. Looks again whenever `wake` is notified.
  template <class Ready>
  bool waitFor(std::condition_variable_any& wake, std::chrono::milliseconds patience,
               Ready isReady) {
    const auto end = std::chrono::steady_clock::now() + patience;
    const Hold hold(m_lock);
    // The wait lets go of the lock, and holds it again when it ends.
    while (!isReady(m_value)) {
      if (wake.wait_until(m_lock, end) == std::cv_status::timeout) return isReady(m_value);
    }
    return true;
  }

 private:
  // std::mutex carries no annotations.
  class TSL_CAPABILITY("mutex") Lock {
   public:
    void lock() TSL_ACQUIRE() { m_mutex.lock(); }
    void unlock() TSL_RELEASE() { m_mutex.unlock(); }

   private:
    std::mutex m_mutex;
  };

  class TSL_SCOPED_CAPABILITY Hold {
   public:
    explicit Hold(Lock& lock) TSL_ACQUIRE(lock) : m_lock(lock) { m_lock.lock(); }
    ~Hold() TSL_RELEASE() { m_lock.unlock(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    Lock& m_lock;
  };

  mutable Lock m_lock;
  Value m_value TSL_GUARDED_BY(m_lock);
};

}  // namespace Tessel

#endif
