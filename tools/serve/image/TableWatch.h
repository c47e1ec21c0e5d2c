// Keeps the images of the served tables up to date: looks for changes, reads changed tables in the
// background, and replaces their images.
#ifndef TSL_TOOLS_SERVE_IMAGE_TABLEWATCH_H
#define TSL_TOOLS_SERVE_IMAGE_TABLEWATCH_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/Background.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/SnapshotFile.h"
#include "serve/image/Table.h"
#include "tables/TextRows.h"

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
// Rows never go back in time. A replica that may be behind what another server has shown is not
// compared with the images until it has caught up: they stay, and grow older.
//
// A table that is missing, that has lost all its rows, or that is there again with fewer rows may
// be one that is just being restored. It is in doubt, and not answered from, until it has its rows
// again or an administrator confirms with a reload that it is as it should be. The server does not
// list tables that the SQL user may not read: those are not missing, and their last images answer.
//
// Any thread may call `reload`, `isSettled` and `stop`.
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
  // Instead of start(): one look as if it were `now`, with all that it has read. One thread.
  void testOnlyLook(Clock::time_point now);
  // Rereads all tables, over new connections, and takes the tables that are in doubt as they are.
  // With settings that do not work, which are reported, the old connection stays, and what is known
  // of the other tables too.
  void reload();
  // The host whose database is read; empty while none can be asked.
  std::string host();
  // True when the database was asked once, and all tables that it has were read, or could not be.
  bool isSettled();
  // Stops watching. False when something still runs after `patience`, which waits for the database
  // then; it must not be destroyed before that ends.
  bool stop(std::chrono::milliseconds patience);

 private:
  using ConnectionPointer = std::unique_ptr<Database::Connection>;

  // What the database notes about a table, on one server.
  struct Mark {
    explicit Mark(const Tool::TextRow& row);
    // Differs after each change that the server notes, and for each connection that finds them: two
    // servers may give the same number to one.
    [[nodiscard]] std::string print() const { return server + " " + connection + " " + times; }

    std::string sqlName;
    std::string server;      // Which one it is.
    std::string connection;  // Number of the connection.
    std::string times;       // Of the creation and of the last change.
    std::string created;
    bool isLongAgo;  // The last change.
  };
  // The rows of a table, and what was noted about it before they were read.
  struct Reading {
    ImagePointer image;
    Mark mark;
  };

  // What is known about one table. A print is what the server notes about it.
  struct Watched {
    explicit Watched(TablePointer watchedTable);

    // The image was read from a table with this print.
    [[nodiscard]] bool hasPrint(const std::string& print) const {
      return table->generation() != 0 && readPrint == print;
    }
    // True when `mark` is of another table than the one that was seen last. Each server has a time
    // of its own for the creation of one table.
    [[nodiscard]] bool isExchanged(const Mark& mark) const {
      return server.empty() || (server == mark.server && created != mark.created);
    }
    // When the table is to be read again, the image having its print; `max` when there is no need.
    [[nodiscard]] Clock::time_point nextRead() const;
    // True when `count` rows are so few that the table may be one that is being filled again.
    [[nodiscard]] bool isSuspicious(std::size_t count) const;
    // What the table is, which had `count` rows when it was read at `start`. One that does not
    // change for the time `quiet` is complete, and so is one that changes for a few of these times.
    [[nodiscard]] TableState judge(std::size_t count, Clock::time_point start,
                                   Clock::duration quiet) const;
    // True when an administrator who looks at the log knows that the table is in doubt.
    [[nodiscard]] bool isInDoubt() const { return isMissing || read != TableState::Good; }

    TablePointer table;
    std::string seen;             // The newest print.
    Clock::time_point seenSince;  // When it was first seen.
    bool isRecent = false;        // More may have changed in the second of the print.
    Clock::time_point lastLook =
        Clock::time_point::min();  // When the table was last seen to be there.
    std::string server;            // The one that has said so.
    std::string created;           // When the table was created, as the server says.
    bool isMissing = false;
    bool isDenied = false;     // It may be there: the SQL user may not know.
    bool isReplaced = false;   // This may be another table than the one that was read before.
    bool isConfirmed = false;  // An administrator wants it as it is, though it is in doubt.
    TableState read = TableState::Good;  // What the table was when it was last read.
    Clock::time_point doubtSince;        // When `read` became `Filling`.
    std::size_t rows = 0;                // Of the image, with those that cannot be read.
    bool isBusy = false;                 // It is being read or saved.
    bool isFailing = false;
    std::string readPrint;                                   // Of the image.
    Clock::time_point readStart;                             // Of the image.
    Clock::duration readTime{};                              // What reading the image took.
    Clock::time_point readAfter = Clock::time_point::min();  // Not again before.
    std::uint64_t saved = 0;                                 // Generation of the snapshot.
    SnapshotId savedAs;
    Clock::time_point saveAfter = Clock::time_point::min();
  };
  struct State {
    bool isStopping = false;
    bool isReloading = false;
    bool isReconnecting = false;
    bool isRunning = false;
    bool hasLooked = false;
    std::string host;  // Where the changes are looked for.
    // The server that was compared with last, and the latest time of which rows in memory may be.
    std::optional<std::string> server;
    Clock::time_point newest = Clock::time_point::min();
    std::map<std::string, Watched> watched;  // By SQL name. Only grows.
  };

  void run();
  void look();
  bool isIdleWithin(std::chrono::milliseconds patience);
  [[nodiscard]] Clock::time_point now() const { return Clock::now() + m_shift; }
  void compareAll(Clock::time_point start);
  void prepareReload();
  bool reconnect();
  std::vector<Mark> listTables();
  void compare(const Mark& mark, Clock::time_point start);
  std::optional<std::chrono::seconds> askLag(Database::Connection& connection);
  [[nodiscard]] std::chrono::seconds lag() const { return m_lag.value_or(0s); }
  bool isBehind(const std::vector<Mark>& marks, Clock::time_point start);
  void noteNewest(Clock::time_point time);
  void noteHost(const std::string& name);
  void noteNames(const std::vector<Mark>& marks);
  void noteMissing(Clock::time_point start);
  std::string whyDenied(const Table& table);
  void forget(Watched& watched);
  void read(Watched& watched, const Mark& mark);
  void readNow(Table& table, const Mark& found, Clock::time_point start, std::chrono::seconds lag);
  [[nodiscard]] ConnectionPointer newConnection() const;
  std::optional<Reading> readAnywhere(const Table& table, const Mark& mark);
  static std::optional<Reading> readRows(Database::Connection& connection, const Table& table,
                                         const Mark& mark);
  bool accept(Table& table, const TableImage& image, const Mark& mark, Clock::time_point start);
  void report(const Table& table, const TableImage& image);
  void save(Watched& watched, Clock::time_point now);
  // Changes what is known of `table`, and notifies those who wait.
  template <class Change>
  void note(const Table& table, Change change);
  void fail(const std::string& why);
  void disconnect();
  // Logs how the connection is encrypted, unless it is the one of the last call.
  void logConnection(Database::Connection& connection);
  // How long a table that is being filled may pause.
  [[nodiscard]] Clock::duration quiet() const;
  void loadSnapshots();

  const Settings& m_settings;
  Tables& m_tables;
  Metrics& m_metrics;
  Log& m_log;
  SnapshotDirectory m_snapshots;
  Clock::duration m_shift{};  // Of the time that tests set. No reader runs when it changes.
  Background m_readers;

  Guarded<State> m_state;
  std::condition_variable_any m_wake;

  Guarded<ConnectionPointer> m_connection;  // Finds the changes.
  std::atomic<int> m_mismatches = 0;        // Readings in a row on another server than that.

  // Of the watching thread alone.
  std::optional<std::chrono::seconds> m_lag;  // Of the database, if --max-lag asks for it.
  bool m_isFailing = false;
  bool m_isWaiting = false;     // For a replica to catch up.
  bool m_isIncomplete = false;  // The last look did not see all tables.
  std::set<std::string> m_names;
  std::string m_logged;  // The connection that was logged last.
  std::thread m_thread;
};

}  // namespace Tessel::Serve

#endif
