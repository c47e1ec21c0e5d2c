// Tests of a value with its lock.
#include "base/Guarded.h"

#include <atomic>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace Tessel {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds s_longer(10000);

TEST(Guarded, TheValueIsMadeFromTheArgumentsAndReachedByACall) {
  Guarded<std::string> guarded(3U, 'x');
  guarded.with([](std::string& value) { value += "y"; });
  const Guarded<std::string>& constant = guarded;
  static_assert(std::is_same_v<decltype(constant.with([](auto& value) { return &value; })),
                               const std::string*>);
  EXPECT_EQ(constant.with([](const std::string& value) { return value; }), "xxxy");
}

TEST(Guarded, OneThreadAtATimeHasTheValue) {
  Guarded<int> guarded(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) guarded.with([](int& value) { ++value; });
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(guarded.with([](int value) { return value; }), 40000);
}

TEST(Guarded, TheLockIsReleasedWhenTheCallThrows) {
  Guarded<int> guarded(1);
  EXPECT_THROW(guarded.with([](int /*value*/) { throw 1; }), int);
  std::thread([&] { guarded.with([](int& value) { value = 2; }); }).join();
  EXPECT_EQ(guarded.with([](int value) { return value; }), 2);
}

TEST(Guarded, AWaitEndsWhenTheValueIsReady) {
  Guarded<int> guarded(0);
  std::condition_variable_any wake;
  std::atomic<int> looks{0};
  std::thread waker([&] {
    // The wait has looked once, and let go of the lock.
    while (looks == 0) std::this_thread::yield();
    guarded.with([](int& value) { value = 1; });
    wake.notify_all();
  });
  EXPECT_TRUE(guarded.waitFor(wake, s_longer, [&](int value) {
    ++looks;
    return value == 1;
  }));
  waker.join();
  EXPECT_GE(looks, 2);
}

TEST(Guarded, AWaitEndsWithThePatience) {
  Guarded<int> guarded(0);
  std::condition_variable_any wake;
  EXPECT_FALSE(guarded.waitFor(wake, milliseconds(1), [](int value) { return value == 1; }));
  EXPECT_TRUE(guarded.waitFor(wake, milliseconds(0), [](int value) { return value == 0; }));
}

}  // namespace
}  // namespace Tessel
