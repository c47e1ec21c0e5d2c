// Calls of the client library that end at a given time. Private to this directory.
#ifndef TSL_DATABASE_WAIT_H
#define TSL_DATABASE_WAIT_H

#include <mysql.h>

#include <chrono>
#include <string_view>

namespace Tessel::Database {

// Waits for the events of `wanted` (MYSQL_WAIT_READ and the others) on the connection and returns
// those that came. From `until` on returns at once that the time is over.
int awaitEvents(MYSQL* mysql, int wanted, std::chrono::steady_clock::time_point until);

// Makes a call of the client library that does not block: `start` begins it, `proceed` goes on with
// the events that came; both store the result through a pointer. Not later than `until` every wait
// is over, and the call fails as after a time-out of its own, with everything cleaned up. The
// connection must have MYSQL_OPT_NONBLOCK.
template <class Result, class Start, class Proceed>
Result callUntil(MYSQL* mysql, std::chrono::steady_clock::time_point until, Start start,
                 Proceed proceed) {
  Result result{};
  int wanted = start(&result);
  while (wanted != 0) wanted = proceed(&result, awaitEvents(mysql, wanted, until));
  return result;
}

// mysql_real_query() and mysql_store_result() with such an end. Zero is success; the result is the
// caller's to free, null after a failure and for a statement without rows.
int queryUntil(MYSQL* mysql, std::string_view statement,
               std::chrono::steady_clock::time_point until);
MYSQL_RES* storeUntil(MYSQL* mysql, std::chrono::steady_clock::time_point until);

}  // namespace Tessel::Database

#endif
