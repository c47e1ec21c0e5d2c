// Retry: which transactions are repeated, and how often.
#include "tables/Retry.h"

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/Error.h"
#include "support/Caught.h"

namespace Tessel::Tool {
namespace {

using Testing::caught;

Database::Error s_errorNumber(unsigned int number, bool outcomeUnknown = false) {
  Database::Error::Facts facts;
  facts.number = number;
  facts.sqlState = "HY000";
  facts.message = "refused";
  facts.outcomeUnknown = outcomeUnknown;
  return {"test", "RetryTest", 1, facts};
}

// How often a transaction is tried that always ends with `error`.
int s_attemptsEndedBy(const Database::Error& error) {
  int attempts = 0;
  const Exception got = caught([&] {
    retryLost([&]() -> int {
      ++attempts;
      throw error;
    });
  });
  EXPECT_EQ(got.stringParameter(), error.stringParameter());
  return attempts;
}

TEST(Retry, ATransactionIsRepeatedUntilItIsDone) {
  for (const unsigned int number : {1213U, 1047U, 1053U, 1290U, 1836U, 2006U, 2013U}) {
    int attempts = 0;
    EXPECT_EQ(retryLost([&] {
                if (++attempts < 3) throw s_errorNumber(number);
                return 7;
              }),
              7)
        << number;
    EXPECT_EQ(attempts, 3) << number;
  }
}

TEST(Retry, HostsAreTriedThreeTimesAndDeadlocksAHundredTimes) {
  EXPECT_EQ(s_attemptsEndedBy(s_errorNumber(1290)), 3);
  EXPECT_EQ(s_attemptsEndedBy(s_errorNumber(s_deadlock)), 100);
}

TEST(Retry, WhatMayHaveBeenDoneIsNotRepeated) {
  EXPECT_EQ(s_attemptsEndedBy(s_errorNumber(2013, true)), 1);
  EXPECT_EQ(s_attemptsEndedBy(s_errorNumber(s_deadlock, true)), 1);
}

TEST(Retry, OtherErrorsPass) {
  EXPECT_EQ(s_attemptsEndedBy(s_errorNumber(1062)), 1);
  EXPECT_EQ(s_attemptsEndedBy(s_errorNumber(2002)), 1);
}

}  // namespace
}  // namespace Tessel::Tool
