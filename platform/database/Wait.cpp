// Wait: poll(2) in place of the client library's own waits, which last whole seconds.
#include "database/Wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

namespace Tessel::Database {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Events of the client library and their counterparts of poll(2).
constexpr struct {
  int event;
  short wanted;
  short came;
} s_events[] = {{MYSQL_WAIT_READ, POLLIN, POLLIN | POLLHUP | POLLERR},
                {MYSQL_WAIT_WRITE, POLLOUT, POLLOUT | POLLHUP | POLLERR},
                {MYSQL_WAIT_EXCEPT, POLLPRI, POLLPRI}};

}  // namespace

int awaitEvents(MYSQL* mysql, int wanted, Clock::time_point until) {
  if ((wanted & MYSQL_WAIT_TIMEOUT) != 0) {
    until = std::min(until, Clock::now() + milliseconds(mysql_get_timeout_value_ms(mysql)));
  }
  pollfd waiting{static_cast<int>(mysql_get_socket(mysql)), 0, 0};
  for (const auto& [event, asked, came] : s_events) {
    if ((wanted & event) != 0) waiting.events = static_cast<short>(waiting.events | asked);
  }
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(until - Clock::now());
    if (left.count() <= 0) return MYSQL_WAIT_TIMEOUT;
    const int count = poll(&waiting, 1, static_cast<int>(left.count()));
    if (count > 0) break;
    if (count < 0 && errno != EINTR) return wanted & ~MYSQL_WAIT_TIMEOUT;
  }
  int events = 0;
  for (const auto& [event, asked, came] : s_events) {
    if ((waiting.revents & came) != 0) events |= wanted & event;
  }
  return events;
}

int queryUntil(MYSQL* mysql, std::string_view statement, Clock::time_point until) {
  return callUntil<int>(
      mysql, until,
      [&](int* result) {
        return mysql_real_query_start(result, mysql, statement.data(), statement.size());
      },
      [mysql](int* result, int events) { return mysql_real_query_cont(result, mysql, events); });
}

MYSQL_RES* storeUntil(MYSQL* mysql, Clock::time_point until) {
  return callUntil<MYSQL_RES*>(
      mysql, until, [mysql](MYSQL_RES** result) { return mysql_store_result_start(result, mysql); },
      [mysql](MYSQL_RES** result, int events) {
        return mysql_store_result_cont(result, mysql, events);
      });
}

}  // namespace Tessel::Database
