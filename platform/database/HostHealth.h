// What this process has seen of the hosts of a list: which ones are to be tried first. Private to
// this directory.
#ifndef TSL_DATABASE_HOSTHEALTH_H
#define TSL_DATABASE_HOSTHEALTH_H

#include <chrono>
#include <string>

namespace Tessel::Database {

// Shared by all connections of the process, since many are short: each of them would otherwise wait
// again for a host that is down. Holds no lock, so a fork at any moment harms neither process. It
// knows 64 hosts; further ones always count as good. Any thread.
class HostHealth {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State {
    Good,  // It worked when it was last used, or was never used.
    Due,   // It failed, and the time is over in which it is left alone.
    Bad,   // It failed a moment ago.
  };

  // `host` is any text that always names the same host.
  static State stateOf(const std::string& host, Clock::time_point now);
  // When a host that failed may be tried again.
  static Clock::time_point dueTime(const std::string& host);
  static void worked(const std::string& host);
  // Leaves the host alone from `now` on: for about half a second after a first failure, twice as
  // long after each further one, at most for about half a minute. The times vary by a quarter, so
  // that the processes of many computers do not all come back at once.
  static void failed(const std::string& host, Clock::time_point now);
  // All hosts of a cluster refuse to work, as they do for a moment when one of them has died.
  // Returns for how long that has been so: since the first call after the last allWork().
  static Clock::duration allRefuse(Clock::time_point now);
  static void allWork();
  // Forgets all hosts. For tests, while no other thread uses them.
  static void forgetAll();
};

}  // namespace Tessel::Database

#endif
