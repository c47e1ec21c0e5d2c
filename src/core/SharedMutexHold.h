// Holds of Boost's reader/writer mutex that Clang's thread-safety analysis understands: Boost's own
// types carry no annotations, and where one is a field of a fixed layout it cannot be replaced.
#ifndef TSL_CORE_SHAREDMUTEXHOLD_H
#define TSL_CORE_SHAREDMUTEXHOLD_H

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "base/ThreadAnnotations.h"

namespace Tessel {

// The lock that a mutex is, as annotations name it: a field is TSL_GUARDED_BY(lockIn(m_mutex)).
// Neither is defined.
class TSL_CAPABILITY("mutex") LockInMutex;
LockInMutex& lockIn(const boost::shared_mutex& mutex);

// Holds the mutex shared from construction to destruction. The mutex must outlive it.
class TSL_SCOPED_CAPABILITY SharedHold {
 public:
  explicit SharedHold(boost::shared_mutex& mutex) TSL_ACQUIRE_SHARED(lockIn(mutex))
      : m_lock(mutex) {}
  ~SharedHold() TSL_RELEASE() {}  // NOLINT(modernize-use-equals-default): the annotation needs it
  SharedHold(const SharedHold&) = delete;
  SharedHold& operator=(const SharedHold&) = delete;

 private:
  boost::shared_lock<boost::shared_mutex> m_lock;
};

// Holds the mutex exclusively from construction to destruction. The mutex must outlive it.
class TSL_SCOPED_CAPABILITY ExclusiveHold {
 public:
  explicit ExclusiveHold(boost::shared_mutex& mutex) TSL_ACQUIRE(lockIn(mutex)) : m_lock(mutex) {}
  ~ExclusiveHold() TSL_RELEASE() {}  // NOLINT(modernize-use-equals-default): as above
  ExclusiveHold(const ExclusiveHold&) = delete;
  ExclusiveHold& operator=(const ExclusiveHold&) = delete;

 private:
  boost::unique_lock<boost::shared_mutex> m_lock;
};

}  // namespace Tessel

#endif
