// A recursive mutex and its scope guard, with the annotations that Clang's thread-safety analysis
// checks.
#ifndef TSL_BASE_MUTEX_H
#define TSL_BASE_MUTEX_H

#include <mutex>

#include "base/Export.h"
#include "base/ThreadAnnotations.h"

namespace Tessel {

// Mutual exclusion, recursive for its holder: the thread that holds it may take it again, and must
// release it as often. Any thread may call any operation.
class TSL_EXPORT TSL_CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  ~Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TSL_ACQUIRE();
  void unlock() TSL_RELEASE();

 private:
  std::recursive_mutex m_mutex;
};

// Holds a `Mutex` from construction to destruction. The mutex must outlive the guard.
class TSL_EXPORT TSL_SCOPED_CAPABILITY Synchronized {
 public:
  explicit Synchronized(Mutex& mutex) TSL_ACQUIRE(mutex);
  ~Synchronized() TSL_RELEASE();
  Synchronized(const Synchronized&) = delete;
  Synchronized& operator=(const Synchronized&) = delete;

 private:
  Mutex& m_mutex;
};

}  // namespace Tessel

#endif
