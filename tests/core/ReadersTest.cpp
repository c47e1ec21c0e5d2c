// Tests of the counts of readers.
#include "core/Readers.h"

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace Tessel {
namespace {

using Inside = Readers::Inside;

TEST(Readers, WithoutReadersAllHaveLeft) {
  Readers readers;
  readers.watch();
  EXPECT_TRUE(readers.haveLeft());
}

TEST(Readers, AReaderThatIsInsideIsWaitedFor) {
  Readers readers;
  auto reader = std::make_unique<Inside>(readers);
  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  EXPECT_FALSE(readers.haveLeft());
  reader.reset();
  EXPECT_TRUE(readers.haveLeft());
}

TEST(Readers, AReaderThatEnteredUnderTheLockIsWaitedFor) {
  Readers readers;
  auto reader = std::make_unique<Inside>(readers, Inside::Locked());
  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  reader.reset();
  EXPECT_TRUE(readers.haveLeft());
}

// More threads than there are numbers: those without one share a slot.
TEST(Readers, EveryOneOfManyThreadsIsWaitedFor) {
  constexpr int s_threads = 80;
  Readers readers;
  std::vector<std::promise<void>> leave(s_threads);
  std::vector<std::thread> threads;
  std::atomic<int> inside = 0;
  for (std::promise<void>& promise : leave) {
    threads.emplace_back([&readers, &inside, future = promise.get_future()] {
      const Inside reader(readers);
      ++inside;
      future.wait();
    });
  }
  while (inside < s_threads) std::this_thread::yield();
  readers.watch();
  for (int i = 0; i < s_threads; ++i) {
    EXPECT_FALSE(readers.haveLeft()) << i;
    leave[static_cast<std::size_t>(i)].set_value();
    threads[static_cast<std::size_t>(i)].join();
  }
  EXPECT_TRUE(readers.haveLeft());
}

// Their counts are added to by threads that do not wait for each other.
TEST(Readers, NoCountIsLostBetweenThreads) {
  Readers readers;
  std::vector<std::thread> threads;
  for (int t = 0; t < 80; ++t) {
    threads.emplace_back([&readers] {
      for (int i = 0; i < 2000; ++i) const Inside reader(readers);
    });
  }
  for (std::thread& thread : threads) thread.join();
  readers.watch();
  EXPECT_TRUE(readers.haveLeft());
}

// Readers that overlap without end do not keep a writer waiting for ever.
TEST(Readers, ThoseThatComeLaterAreNotWaitedFor) {
  Readers readers;
  auto first = std::make_unique<Inside>(readers);
  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  auto second = std::make_unique<Inside>(readers);
  first.reset();
  EXPECT_TRUE(readers.haveLeft());

  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  const Inside third(readers, Inside::Locked());
  second.reset();
  EXPECT_TRUE(readers.haveLeft());

  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
}

}  // namespace
}  // namespace Tessel
