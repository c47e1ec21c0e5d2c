// Idle connections to the default server, kept for the next user of this process. Private to this
// folder.
#ifndef TSL_DATABASE_IDLESET_H
#define TSL_DATABASE_IDLESET_H

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "database/Handle.h"

namespace Tessel::Database {

// The one set of this process. It is never destroyed, so that destructors of static objects may use
// it; its connections are closed at process exit. A forked child starts with an empty set. Any
// thread may call any operation; nothing is sent or closed under the set's lock.
class IdleSet {
 public:
  static IdleSet& instance();
  IdleSet(const IdleSet&) = delete;
  IdleSet& operator=(const IdleSet&) = delete;

  // A connection as good as new whose options have the identity `key`, or null. No database that
  // the caller asked for is selected on it yet.
  std::unique_ptr<Handle> take(const std::string& key);
  // Keeps `handle` for a while when it is fit for that and there is room; otherwise closes it.
  void give(std::unique_ptr<Handle> handle, const std::string& key) noexcept;

  // How often this process was forked since its first ancestor with a connection.
  [[nodiscard]] static unsigned int forkCount() noexcept;
  // True once the process exits and the set is closed: what static objects still hold is closed
  // without TLS from then on.
  [[nodiscard]] static bool isPastExit() noexcept;

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    std::unique_ptr<Handle> handle;
    std::string key;
    Clock::time_point since;
  };
  using Entries = std::vector<Entry>;

  IdleSet();
  static void closeAtExit() noexcept;
  static void beforeFork() noexcept;
  static void inParent() noexcept;
  static void inChild() noexcept;
  // Moves the entries that may not be used any more to `outdated`. The caller holds m_mutex.
  void separateOutdated(Entries& outdated);
  bool hasRoom();

  std::mutex m_mutex;     // Held over a fork, so that the child finds the entries whole.
  Entries m_entries;      // Guarded by m_mutex. Oldest first.
  bool m_closed = false;  // Guarded by m_mutex. Set at process exit: nothing is kept from then on.
};

}  // namespace Tessel::Database

#endif
