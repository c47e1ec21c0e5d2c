// Transactions that the server rolls back in favour of others.
#ifndef TSL_TOOLS_TABLES_RETRY_H
#define TSL_TOOLS_TABLES_RETRY_H

#include "base/Exception.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// The server's answer to a transaction that it rolled back because it and another one waited for
// each other. Two edits that add the same row may do so.
inline constexpr unsigned int s_deadlock = 1213;
// In each round, at least one of those that wait for each other completes.
inline constexpr int s_deadlockRounds = 100;

// Calls `transact`, a whole transaction, again as long as the server rolls it back for a deadlock.
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
