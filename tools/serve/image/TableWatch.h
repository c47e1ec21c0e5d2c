// Keeps the images of the served tables up to date: looks for changes, reads changed tables in the
// background, and replaces their images.
#ifndef TSL_TOOLS_SERVE_IMAGE_TABLEWATCH_H
#define TSL_TOOLS_SERVE_IMAGE_TABLEWATCH_H

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/SnapshotFile.h"
#include "serve/image/Table.h"

namespace Tessel::Database {
class Connection;
}

namespace Tessel::Serve {

// How a change is found without reading a table: the server notes when each table was created and
// last changed, to the second. A second may see several changes, so a table is read again when the
// second of its last change is over. What is noted is forgotten when the server restarts, and
// another server of a cluster notes other times: so the number of the connection is compared too,
// and a new connection rereads all tables.
//
// Any thread may call `reload` and `stop`.
class TableWatch {
 public:
  // Loads the images of the snapshot directory. All references must outlive the object.
  TableWatch(const Settings& settings, Tables& tables, Metrics& metrics, Log& log);
  // Waits for what runs.
  ~TableWatch();
  TableWatch(const TableWatch&) = delete;
  TableWatch& operator=(const TableWatch&) = delete;

  // Begins to watch, on threads of its own.
  void start();
  // Rereads all tables, over new connections.
  void reload();
  // Stops watching. False when something still runs after `patience`, which waits for the database
  // then; it must not be destroyed before that ends.
  bool stop(std::chrono::milliseconds patience);

 private:
  class Readers;

  // What is known about one table. A print is what the server notes about it.
  struct Watched {
    explicit Watched(TablePointer watchedTable) : table(std::move(watchedTable)) {}

    // The image was read from a table with this print.
    [[nodiscard]] bool hasPrint(const std::string& print) const {
      return table->generation() != 0 && readPrint == print;
    }
    // When the table is to be read again, the image having its print; `max` when there is no need.
    [[nodiscard]] Clock::time_point nextRead() const;

    TablePointer table;
    std::string seen;             // The newest print.
    Clock::time_point seenSince;  // When it was first seen.
    bool isRecent = false;        // More may have changed in the second of the print.
    Clock::time_point lastLook;   // When the table was last seen to be there.
    bool isMissing = false;
    bool isBusy = false;  // It is being read or saved.
    bool isFailing = false;
    std::string readPrint;        // Of the image.
    Clock::time_point readStart;  // Of the image.
    Clock::duration readTime{};   // What reading the image took.
    Clock::time_point readAfter;  // Not again before.
    std::uint64_t saved = 0;      // Generation of the snapshot.
    Clock::time_point saveAfter;
  };
  struct State {
    bool isStopping = false;
    bool isReloading = false;
    bool isRunning = false;
    std::map<std::string, Watched> watched;  // By SQL name. Only grows.
  };

  void run();
  void look(Clock::time_point start);
  void compare(const std::string& sqlName, const std::string& print, bool isLongAgo,
               Clock::time_point start);
  void noteMissing(Clock::time_point start);
  void read(Watched& watched, const std::string& print);
  void readNow(Table& table, const std::string& print, Clock::time_point start);
  void report(const Table& table, const TableImage& image);
  void save(Watched& watched, Clock::time_point now);
  // Changes what is known of `table`, and notifies those who wait.
  template <class Change>
  void note(const Table& table, Change change);
  void fail(const std::string& why);
  void loadSnapshots();

  const Settings& m_settings;
  Tables& m_tables;
  Metrics& m_metrics;
  Log& m_log;
  SnapshotDirectory m_snapshots;
  std::unique_ptr<Readers> m_readers;

  Guarded<State> m_state;
  std::condition_variable_any m_wake;

  // Of the watching thread alone.
  std::unique_ptr<Database::Connection> m_connection;
  bool m_isFailing = false;
  std::thread m_thread;
};

}  // namespace Tessel::Serve

#endif
