// Keeps the images of the served tables like the tables: looks for changes, reads what changed in
// the background, and puts the new image into the place of the old one.
#ifndef TSL_TOOLS_SERVE_TABLEWATCH_H
#define TSL_TOOLS_SERVE_TABLEWATCH_H

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "serve/Log.h"
#include "serve/Metrics.h"
#include "serve/Settings.h"
#include "serve/SnapshotFile.h"
#include "serve/Table.h"

namespace Tessel::Database {
class Connection;
}

namespace Tessel::Serve {

// How a change is found without reading a table: the server notes when each table was made and last
// changed, to the second. A second may see several changes, so a table is read again when the
// second of its last change is over. What is noted is forgotten when the server restarts, and
// another server of a cluster notes other times: so the number of the connection is a part of what
// is compared, and a new connection makes all tables be read.
//
// Any thread may call `reload` and `stop`.
class TableWatch {
 public:
  // Puts the images of the snapshot folder into place. All references must outlive the object.
  TableWatch(const Settings& settings, Tables& tables, Metrics& metrics, Log& log);
  // Waits for what runs.
  ~TableWatch();
  TableWatch(const TableWatch&) = delete;
  TableWatch& operator=(const TableWatch&) = delete;

  // Begins to watch, on threads of its own.
  void start();
  // Reads all tables anew, over new connections.
  void reload();
  // Ends the watch. False when something still runs after `patience`, which waits for the database
  // then; it must not be destroyed before that ends.
  bool stop(std::chrono::milliseconds patience);

 private:
  struct Watched;
  class Readers;
  using WatchedPointer = std::shared_ptr<Watched>;

  void run();
  void look(Clock::time_point start);
  void compare(const std::string& sqlName, const std::string& print, bool isLongAgo,
               Clock::time_point start);
  void noteMissing(Clock::time_point start);
  void read(const WatchedPointer& watched, const std::string& print);
  void readNow(Watched& watched, const std::string& print, Clock::time_point start);
  void report(const Watched& watched, const TableImage& image);
  void save(const WatchedPointer& watched, Clock::time_point now);
  void fail(const std::string& why);
  void loadSnapshots();

  const Settings& m_settings;
  Tables& m_tables;
  Metrics& m_metrics;
  Log& m_log;
  SnapshotFolder m_snapshots;
  std::unique_ptr<Readers> m_readers;

  std::mutex m_mutex;  // Guards what follows, and what `Watched` says.
  std::condition_variable m_wake;
  bool m_isStopping = false;
  bool m_isReloading = false;
  bool m_isRunning = false;
  std::map<std::string, WatchedPointer> m_watched;  // By SQL name.

  // Of the watching thread alone.
  std::unique_ptr<Database::Connection> m_connection;
  bool m_isFailing = false;
  std::thread m_thread;
};

}  // namespace Tessel::Serve

#endif
