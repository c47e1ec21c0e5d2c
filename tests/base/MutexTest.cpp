// Tests of Mutex and Synchronized.
#include "base/Mutex.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace Tessel {
namespace {

struct Counter {
  Mutex mutex;
  int value TSL_GUARDED_BY(mutex) = 0;
};

TEST(Mutex, OneThreadAtATimeHoldsIt) {
  Counter counter;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&counter] {
      for (int n = 0; n < 1000; ++n) {
        const Synchronized lock(counter.mutex);
        ++counter.value;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const Synchronized lock(counter.mutex);
  EXPECT_EQ(counter.value, 8000);
}

// Takes the mutex `depth` times over on one thread; the analysis does not follow recursion.
void s_hold(Mutex& mutex, int depth, std::atomic<int>& deepest) {
  if (depth == 0) return;
  const Synchronized lock(mutex);
  ++deepest;
  s_hold(mutex, depth - 1, deepest);
}

TEST(Mutex, ItsHolderMayTakeItAgainAndMustReleaseItAsOften) {
  Mutex mutex;
  std::atomic<int> deepest{0};
  s_hold(mutex, 5, deepest);
  EXPECT_EQ(deepest, 5);
  // Every hold was released: another thread gets it.
  std::thread other([&] { s_hold(mutex, 1, deepest); });
  other.join();
  EXPECT_EQ(deepest, 6);
}

TEST(Mutex, IsReleasedWhenAnExceptionLeavesTheScope) {
  Mutex mutex;
  try {
    const Synchronized lock(mutex);
    throw 1;
  } catch (int) {
  }
  std::atomic<bool> taken{false};
  std::thread other([&] {
    const Synchronized lock(mutex);
    taken = true;
  });
  other.join();
  EXPECT_TRUE(taken);
}

}  // namespace
}  // namespace Tessel
