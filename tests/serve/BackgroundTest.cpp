// Threads for what takes long.
#include "serve/base/Background.h"

#include <atomic>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "tests/serve/WorkerFixture.h"

namespace Tessel::Serve {
namespace {

TEST(Background, OneThreadRunsTheTasksInTheirOrder) {
  std::vector<int> order;
  Background background(1);
  for (int i = 0; i < 100; ++i) background.post([&order, i] { order.push_back(i); });
  background.finish();
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST(Background, TasksThatWaitAreDroppedAtItsEnd) {
  std::atomic<int> begun{0};
  std::mutex hold;
  std::unique_lock held(hold);
  {
    Background background(1);
    for (int i = 0; i < 3; ++i) {
      background.post([&] {
        ++begun;
        const std::lock_guard lock(hold);
      });
    }
    ASSERT_TRUE(waitFor([&begun] { return begun == 1; }));
    EXPECT_TRUE(background.isBusy());
    background.stop();
    held.unlock();
  }
  EXPECT_EQ(begun, 1);
}

}  // namespace
}  // namespace Tessel::Serve
