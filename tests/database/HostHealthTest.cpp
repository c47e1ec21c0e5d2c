// HostHealth: how long a host that failed is left alone.
#include "database/HostHealth.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace Tessel::Database {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using State = HostHealth::State;

class HostHealthTest : public testing::Test {
 protected:
  void SetUp() override { HostHealth::forgetAll(); }

  // For how many milliseconds a host is left alone from now on.
  [[nodiscard]] int pause() const {
    int time = 0;
    while (HostHealth::stateOf("a", m_now + milliseconds(time)) == State::Bad) ++time;
    return time;
  }

  const HostHealth::Clock::time_point m_now = HostHealth::Clock::now();
};

TEST_F(HostHealthTest, AHostIsGoodUntilItFails) {
  EXPECT_EQ(HostHealth::stateOf("a", m_now), State::Good);
  HostHealth::failed("a", m_now);
  EXPECT_EQ(HostHealth::stateOf("a", m_now), State::Bad);
  EXPECT_EQ(HostHealth::stateOf("b", m_now), State::Good);
  EXPECT_EQ(HostHealth::stateOf("a", m_now + seconds(1)), State::Due);
  HostHealth::worked("a");
  EXPECT_EQ(HostHealth::stateOf("a", m_now), State::Good);
}

TEST_F(HostHealthTest, EachFurtherFailureDoublesThePauseUpToALimit) {
  int expected = 500;
  for (int times = 0; times < 20; ++times) {
    HostHealth::failed("a", m_now);
    EXPECT_GE(pause(), expected * 75 / 100) << times;
    EXPECT_LE(pause(), expected * 125 / 100 + 1) << times;
    expected = std::min(expected * 2, 30'000);
  }
}

TEST_F(HostHealthTest, AHostThatWorkedStartsWithTheShortestPauseAgain) {
  for (int times = 0; times < 5; ++times) HostHealth::failed("a", m_now);
  HostHealth::worked("a");
  HostHealth::failed("a", m_now);
  EXPECT_LE(pause(), 626);
}

TEST_F(HostHealthTest, ThePausesVary) {
  int shortest = 1000;
  int longest = 0;
  for (int i = 0; i < 50; ++i) {
    HostHealth::forgetAll();
    HostHealth::failed("a", m_now + std::chrono::nanoseconds(i));
    shortest = std::min(shortest, pause());
    longest = std::max(longest, pause());
  }
  EXPECT_GT(longest - shortest, 100);
}

TEST_F(HostHealthTest, WhatDoesNotFitCountsAsGood) {
  for (int i = 0; i < 200; ++i) HostHealth::failed(std::to_string(i), m_now);
  int bad = 0;
  for (int i = 0; i < 200; ++i) {
    bad += HostHealth::stateOf(std::to_string(i), m_now) == State::Bad ? 1 : 0;
  }
  EXPECT_GE(bad, 32);
  EXPECT_LE(bad, 64);
}

}  // namespace
}  // namespace Tessel::Database
