// Tests of the numbers of threads.
#include "core/ThreadNumber.h"

#include <future>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel {
namespace {

TEST(ThreadNumber, AThreadKeepsItsNumber) {
  const auto number = ThreadNumber::mine();
  EXPECT_LT(number, ThreadNumber::s_most);
  EXPECT_EQ(ThreadNumber::mine(), number);
}

TEST(ThreadNumber, NoTwoLivingThreadsHaveOneAndTheRestHaveNone) {
  std::promise<void> end;
  const std::shared_future<void> ended = end.get_future().share();
  std::vector<std::thread> threads;
  std::vector<std::promise<unsigned int>> promises(ThreadNumber::s_most + 10);
  for (auto& promise : promises) {
    threads.emplace_back([&promise, ended] {
      promise.set_value(ThreadNumber::mine());
      ended.wait();
    });
  }
  std::set<unsigned int> numbers = {ThreadNumber::mine()};
  unsigned int none = 0;
  for (auto& promise : promises) {
    const unsigned int number = promise.get_future().get();
    if (number == ThreadNumber::s_most) {
      ++none;
    } else {
      EXPECT_TRUE(numbers.insert(number).second) << number;
    }
  }
  EXPECT_EQ(numbers.size(), ThreadNumber::s_most);
  EXPECT_EQ(none, 11U);
  end.set_value();
  for (std::thread& thread : threads) thread.join();
}

TEST(ThreadNumber, TheNumberOfAThreadThatEndedIsGivenOutAgain) {
  std::set<unsigned int> numbers;
  for (unsigned int i = 0; i < 2 * ThreadNumber::s_most; ++i) {
    std::thread([&numbers] { numbers.insert(ThreadNumber::mine()); }).join();
  }
  EXPECT_THAT(numbers, testing::Not(testing::Contains(ThreadNumber::s_most)));
}

}  // namespace
}  // namespace Tessel
