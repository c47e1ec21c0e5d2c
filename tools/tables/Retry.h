// Transactions that the server ends in favour of others.
#ifndef TSL_TOOLS_TABLES_RETRY_H
#define TSL_TOOLS_TABLES_RETRY_H

#include "base/Exception.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// The server's answer to a transaction that it undid because it and another one waited for each
// other. Two edits that add the same row may meet so.
inline constexpr unsigned int s_deadlock = 1213;
// Each round ends for at least one of those that wait for each other.
inline constexpr int s_deadlockRounds = 100;

// Calls `transact`, a whole transaction, anew as long as the server undoes it for a deadlock.
// Returns what it returns; other exceptions pass, as does the last deadlock.
template <class Transact>
auto retryDeadlocks(Transact transact) {
  for (int round = 1;; ++round) {
    try {
      return transact();
    } catch (const Exception& exception) {
      if (round == s_deadlockRounds || !isDatabaseError(exception, s_deadlock)) throw;
    }
  }
}

}  // namespace Tessel::Tool

#endif
