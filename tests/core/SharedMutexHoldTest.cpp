// Tests of the holds of a reader/writer mutex.
#include "core/SharedMutexHold.h"

#include <thread>

#include <gtest/gtest.h>

namespace Tessel {
namespace {

// How another thread can take the mutex at the moment.
enum class Left { Nothing, Sharing, Everything };

Left s_left(boost::shared_mutex& mutex) {
  Left left = Left::Nothing;
  std::thread([&] {
    if (mutex.try_lock()) {
      mutex.unlock();
      left = Left::Everything;
    } else if (mutex.try_lock_shared()) {
      mutex.unlock_shared();
      left = Left::Sharing;
    }
  }).join();
  return left;
}

TEST(SharedMutexHold, EachHoldsAsItsNameSaysUntilItEnds) {
  boost::shared_mutex mutex;
  {
    const SharedHold hold(mutex);
    EXPECT_EQ(s_left(mutex), Left::Sharing);
  }
  {
    const ExclusiveHold hold(mutex);
    EXPECT_EQ(s_left(mutex), Left::Nothing);
  }
  EXPECT_EQ(s_left(mutex), Left::Everything);
}

}  // namespace
}  // namespace Tessel
