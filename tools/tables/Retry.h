// Transactions that did nothing through no fault of their own, and are worth another attempt.
#ifndef TSL_TOOLS_TABLES_RETRY_H
#define TSL_TOOLS_TABLES_RETRY_H

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <random>
#include <thread>

#include "base/Exception.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// The server's answer to a transaction that it rolled back for another one: two that wait for each
// other, or that meet when a cluster commits them. Two edits that add the same row may do so.
inline constexpr unsigned int s_deadlock = 1213;
// In each round, at least one of those that meet completes.
inline constexpr int s_deadlockRounds = 100;
// What ends a transaction when its host is cut off from its cluster, shut down, read-only or gone,
// or cannot wait for the other nodes. The next attempt asks another host.
inline constexpr std::initializer_list<unsigned int> s_hostErrors{1047, 1053, 1205, 1290,
                                                                  1836, 2006, 2013};
inline constexpr int s_hostRounds = 3;

// Calls `transact`, a whole transaction, again as long as it is rolled back for a deadlock or its
// host fails, after a short pause. One whose outcome is unknown is not repeated. Returns what it
// returns; other exceptions pass, as does the last one.
template <class Transact>
auto retryLost(Transact transact) {
  std::minstd_rand random(std::random_device{}());
  int deadlocks = 0;
  int failures = 0;
  for (;;) {
    try {
      return transact();
    } catch (const Exception& exception) {
      const auto is = [&exception](unsigned int number) {
        return isDatabaseError(exception, number);
      };
      if (isOutcomeUnknown(exception)) throw;
      if (is(s_deadlock)) {
        if (++deadlocks == s_deadlockRounds) throw;
      } else if (!std::any_of(s_hostErrors.begin(), s_hostErrors.end(), is) ||
                 ++failures == s_hostRounds) {
        throw;
      }
    }
    // By chance, so that the same two do not meet again.
    const int longest = std::min(2 << std::min(deadlocks + failures, 5), 20);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(0, longest)(random)));
  }
}

}  // namespace Tessel::Tool

#endif
