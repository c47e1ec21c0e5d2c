// Keeps the images of the served tables up to date.
#include "serve/image/TableWatch.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/Exception.h"
#include "database/Connection.h"
#include "database/Transaction.h"
#include "failure/Failure.h"
#include "serve/base/SettingsText.h"
#include "tables/AliasGraph.h"
#include "tables/ServerRole.h"
#include "tables/TableNames.h"

namespace Tessel::Serve {

namespace {

using std::chrono::milliseconds;

// Tables that are read at the same time: a small one need not wait for a large one.
constexpr std::size_t s_readers = 2;

// Until the second of a change is certainly over, later changes in it look the same. A small table
// is reread each time, a larger one at these times after the change was found.
constexpr milliseconds s_noTime = 50ms;
constexpr milliseconds s_midway = 500ms;
constexpr milliseconds s_settled = 1250ms;

// A table whose last change is longer ago than clocks are ever set back is not in that second.
constexpr const char* s_longAgo = "7200";

// A replica says whole seconds: it may be nearly one more behind.
constexpr milliseconds s_lagUnit = 1s;

// How long one of several hosts may take to say what has changed. One that was suspended, or cannot
// catch up with its cluster, takes as long as the time-outs allow.
constexpr milliseconds s_patience = 2s;

// Pause after a table could not be read.
constexpr milliseconds s_retry = 1s;
// A table that is filled row by row is complete when it has not changed for this many times the
// time in which changes are to be visible.
constexpr int s_quietTimes = 10;
// Such times after which it is used although it changes on and on.
constexpr int s_doubts = 3;
// A table that had this many rows does not lose more than half of them in one step of daily work.
constexpr std::size_t s_manyRows = 10;

// After this many readings in a row that met another server, connections lead to different ones on
// purpose, as behind a proxy.
constexpr int s_mostMismatches = 3;

// What is asked about tables, for `Mark`. MySQL keeps what it answers here for a day unless this
// hint says otherwise; to MariaDB the hint is a comment.
constexpr const char s_marksStatement[] =
    "select /*+ SET_VAR(information_schema_stats_expiry=0) */ table_name,"
    " concat_ws(' ', @@hostname, @@port, @@datadir), connection_id(),"
    " concat_ws(' ', create_time, ifnull(update_time, '-')), create_time,"
    " ifnull(timestampdiff(second, update_time, now()) > ";
constexpr unsigned int s_markColumns = 6;

std::string s_marks(const std::string& condition) {
  return std::string(s_marksStatement) + s_longAgo +
         ", 1) from information_schema.tables where table_schema = '" + Tool::s_database +
         "' and " + condition + ";";
}

std::unique_ptr<Database::Connection> s_connect() {
  auto connection = std::make_unique<Database::Connection>(Tool::s_database);
  connection->setPatience(s_patience);
  return connection;
}

// The host of a connection, for people.
std::string s_nameOf(Database::Connection& connection) {
  const std::string name = connection.host().name;
  return name.empty() ? connection.peerAddress().text() : name;
}

std::size_t s_count(const TableImage& image) {
  return image.rows().size() + image.brokenRows().count();
}

// The requests that a table answers, for people.
std::string s_requestsOf(const Table& table) {
  return table.kind() == TableKind::Rules ? "requests for aliases" : "its requests";
}

std::string s_select(const Table& table) {
  if (table.kind() == TableKind::Rules) return s_selectRules;
  const char* const columns =
      table.kind() == TableKind::Alias ? "name, members" : "private, public";
  return std::string("select ") + columns + " from " + Tool::quotedName(table.sqlName()) + ";";
}

}  // namespace

TableWatch::Watched::Watched(TablePointer watchedTable) : table(std::move(watchedTable)) {
  const ImagePointer snapshot = table->image();
  if (snapshot != nullptr) rows = s_count(*snapshot);
}

bool TableWatch::Watched::isSuspicious(std::size_t count) const {
  return isReplaced ? count < rows : rows >= s_manyRows && count < rows / 2;
}

TableState TableWatch::Watched::judge(std::size_t count, Clock::time_point start,
                                      Clock::duration quiet) const {
  if (count >= rows || isConfirmed) return TableState::Good;
  // Whoever has a few rules removes the last one without a second thought.
  const bool isDailyWork = table->kind() == TableKind::Rules && rows < s_manyRows && !isReplaced;
  if (count == 0 && !isDailyWork) return TableState::Empty;
  const bool isLongInDoubt = read == TableState::Filling && start >= doubtSince + s_doubts * quiet;
  const bool isStillChanging = isRecent && start < seenSince + quiet && !isLongInDoubt;
  return isSuspicious(count) && isStillChanging ? TableState::Filling : TableState::Good;
}

Clock::time_point TableWatch::Watched::nextRead() const {
  if (!isRecent || readStart >= seenSince + s_settled) return Clock::time_point::max();
  if (readTime < s_noTime) return readStart;
  const bool isBefore = readStart < seenSince + s_midway;
  return seenSince + (isBefore ? s_midway : s_settled);
}

TableWatch::TableWatch(const Settings& settings, Tables& tables, Metrics& metrics, Log& log)
    : m_settings(settings),
      m_tables(tables),
      m_metrics(metrics),
      m_log(log),
      m_snapshots(settings.snapshot),
      m_readers(s_readers) {
  loadSnapshots();
}

TableWatch::~TableWatch() {
  stop(0ms);
  if (m_thread.joinable()) m_thread.join();
  m_readers.finish();
}

void TableWatch::start() {
  m_state.with([](State& state) { state.isRunning = true; });
  m_thread = std::thread([this] { run(); });
}

void TableWatch::reload() {
  m_state.with([](State& state) { state.isReloading = true; });
  m_wake.notify_all();
}

std::string TableWatch::host() {
  return m_state.with([](const State& state) { return state.host; });
}

bool TableWatch::isSettled() {
  return m_state.with([](const State& state) {
    return state.hasLooked &&
           std::none_of(state.watched.begin(), state.watched.end(), [](const auto& entry) {
             return entry.second.isBusy && entry.second.table->generation() == 0;
           });
  });
}

bool TableWatch::stop(milliseconds patience) {
  m_state.with([](State& state) { state.isStopping = true; });
  m_wake.notify_all();
  return isIdleWithin(patience);
}

bool TableWatch::isIdleWithin(milliseconds patience) {
  return m_state.waitFor(m_wake, patience, [](const State& state) {
    return !state.isRunning && std::none_of(state.watched.begin(), state.watched.end(),
                                            [](const auto& entry) { return entry.second.isBusy; });
  });
}

void TableWatch::testOnlyLook(Clock::time_point now) {
  m_shift = now - Clock::now();
  look();
  isIdleWithin(1min);
}

void TableWatch::run() {
  const milliseconds interval = std::clamp(m_settings.refresh / 4, 10ms, 1000ms);
  while (!m_state.with([](const State& state) { return state.isStopping; })) {
    look();
    m_state.waitFor(m_wake, interval,
                    [](const State& state) { return state.isStopping || state.isReloading; });
  }
  m_state.with([](State& state) { state.isRunning = false; });
  m_wake.notify_all();
}

void TableWatch::look() {
  if (m_state.with([](State& state) { return std::exchange(state.isReloading, false); })) {
    prepareReload();
  }
  if (m_state.with([](State& state) { return std::exchange(state.isReconnecting, false); })) {
    disconnect();
  }
  compareAll(now());
  m_state.with([](State& state) { state.hasLooked = true; });
}

// Has all tables reread over new connections.
void TableWatch::prepareReload() {
  m_state.with([](State& state) {
    for (auto& [name, watched] : state.watched) {
      // Only what the log has said: a table that is emptied now is not what was meant.
      if (!watched.isInDoubt()) continue;
      watched.isConfirmed = true;
      watched.readPrint.clear();
    }
  });
  if (!reconnect()) return;
  m_mismatches = 0;
  m_state.with([](State& state) {
    for (auto& [name, watched] : state.watched) watched.readPrint.clear();
  });
}

// Connects as the settings are now. False when they do not work: then the connection that there is
// goes on, and rows that were right are not read again.
bool TableWatch::reconnect() try {
  m_connection.with([](ConnectionPointer& connection) {
    if (connection == nullptr) return;
    connection = s_connect();
  });
  return true;
} catch (const Exception& exception) {
  // The look says when the database is missing.
  if (!Tool::isDatabaseError(exception, Tool::s_unknownDatabase)) {
    m_log.error(
        "the service goes on with the connection to the database that it has: there is no new"
        " one: " +
        Tool::reasonOf(exception) + "; correct that, and reload the service again");
  }
  return false;
}

void TableWatch::compareAll(Clock::time_point start) {
  try {
    const std::vector<Mark> marks = listTables();
    if (!isBehind(marks, start)) {
      for (const Mark& mark : marks) compare(mark, start);
      noteMissing(start);
      noteNames(marks);
    }
    if (m_isFailing) m_log.warning("the database is available again");
    m_isFailing = false;
  } catch (const std::exception& exception) {
    fail(Tool::failureOf(exception, "").why());
  }
}

TableWatch::Mark::Mark(const Tool::TextRow& row)
    : sqlName(row[0]),
      server(row[1]),
      connection(row[2]),
      times(row[3]),
      created(row[4]),
      isLongAgo(row[5] == "1") {}

// What the database notes about each table.
std::vector<TableWatch::Mark> TableWatch::listTables() {
  return m_connection.with([this](ConnectionPointer& connection) -> std::vector<Mark> {
    try {
      if (connection == nullptr) {
        connection = s_connect();
      } else if (m_isIncomplete) {
        // Rights on a database that were granted meanwhile count from now on.
        connection->dbSelect(Tool::s_database);
      }
      const auto rows =
          Tool::selectTexts(*connection, s_marks("table_type='BASE TABLE'"), s_markColumns);
      m_lag = askLag(*connection);
      noteHost(s_nameOf(*connection));
      logConnection(*connection);
      return {rows.begin(), rows.end()};
    } catch (const Exception& exception) {
      if (!Tool::isDatabaseError(exception, Tool::s_unknownDatabase)) throw;
      connection.reset();
      // An answer, as if the database were there without tables.
      return {};
    }
  });
}

// How far the database is behind the one that it replicates; nothing for one that replicates none,
// and unless --max-lag asks for it.
std::optional<std::chrono::seconds> TableWatch::askLag(Database::Connection& connection) {
  if (!m_settings.maxLag) return std::nullopt;
  const auto replica = Tool::replicaOf(connection);
  if (!replica) return std::nullopt;
  if (replica->lag && *replica->lag <= *m_settings.maxLag) return *replica->lag;
  const std::string host = s_nameOf(connection);
  connection.leaveHost();
  throw Tool::Failure(
      Tool::ExitCode::Unavailable, "asking " + host,
      "the replica " + host +
          (replica->lag ? " is " + std::to_string(replica->lag->count()) + " s behind, more than"
                        : " does not replicate, and must for") +
          " --max-lag " + timeText(*m_settings.maxLag),
      "");
}

// True when the database, which gave `marks` at a look that began at `start`, is a replica and may
// be older than rows in memory, or rows that are being read, from another server.
bool TableWatch::isBehind(const std::vector<Mark>& marks, Clock::time_point start) {
  const std::string server = marks.empty() ? "" : marks.front().server;
  const bool isBehind = m_state.with([&](State& state) {
    const bool isBusy = std::any_of(state.watched.begin(), state.watched.end(),
                                    [](const auto& entry) { return entry.second.isBusy; });
    if (m_lag && state.server != server && (isBusy || start - *m_lag - s_lagUnit < state.newest)) {
      return true;
    }
    state.server = server;
    return false;
  });
  if (!isBehind) noteNewest(start);
  if (!std::exchange(m_isWaiting, isBehind) && isBehind) {
    m_log.info("the replica " + host() + ", " + std::to_string(m_lag->count()) +
               " s behind, may be older than the rows in memory, which answer until it is not");
  }
  return isBehind;
}

// Rows in memory may be as new as `time`.
void TableWatch::noteNewest(Clock::time_point time) {
  m_state.with([time](State& state) { state.newest = std::max(state.newest, time); });
}

void TableWatch::noteHost(const std::string& name) {
  const bool isNew =
      m_state.with([&name](State& state) { return std::exchange(state.host, name) != name; });
  if (isNew) m_metrics.databaseHost(name);
}

void TableWatch::logConnection(Database::Connection& connection) {
  const std::string which = "connected to the database at " + connection.peerAddress().text() +
                            ", connection " + std::to_string(connection.id());
  if (which == m_logged) return;
  m_logged = which;
  const auto encryption = connection.encryption();
  m_metrics.databaseConnected(encryption.has_value(), encryption && encryption->isVerified());
  m_log.info(which + (encryption ? ", encrypted with " + encryption->text() : ", not encrypted"));
}

void TableWatch::compare(const Mark& mark, Clock::time_point start) {
  const std::string& sqlName = mark.sqlName;
  const std::string print = mark.print();
  const TablePointer table = m_tables.add(sqlName);
  if (table == nullptr) return;
  m_state.with([&](State& state) {
    Watched& watched = state.watched.try_emplace(sqlName, table).first->second;
    watched.lastLook = start;
    // What was confirmed is that it is gone, not what it is now.
    if (watched.isMissing) watched.isConfirmed = false;
    if (watched.isMissing || watched.isExchanged(mark)) watched.isReplaced = true;
    watched.isMissing = false;
    if (std::exchange(watched.isDenied, false)) {
      m_log.warning("table " + sqlName + " can be read again");
    }
    watched.server = mark.server;
    watched.created = mark.created;
    if (watched.seen != print) {
      watched.isRecent = !watched.seen.empty() || !mark.isLongAgo;
      watched.seen = print;
      watched.seenSince = start;
    }
    if (watched.isBusy) return;
    const bool isSame = watched.hasPrint(print) && !watched.isFailing;
    const bool isInUse = isSame && watched.read == TableState::Good;
    if (isInUse) table->confirm(start - lag());
    Clock::time_point next = isSame ? watched.nextRead() : Clock::time_point::min();
    if (watched.read == TableState::Filling) next = std::min(next, watched.seenSince + quiet());
    if (start >= std::max(next, watched.readAfter)) return read(watched, mark);
    if (isInUse) save(watched, start);
  });
}

// Notes which tables there are, for who must know that one is not there.
void TableWatch::noteNames(const std::vector<Mark>& marks) {
  std::set<std::string> names;
  for (const Mark& mark : marks) {
    if (Tool::readTableName(mark.sqlName)) names.insert(mark.sqlName);
  }
  if (m_tables.names() && names == m_names) return;
  m_names = names;
  m_tables.setNames(std::move(names));
}

// Why the SQL user may not read the table, which was not listed; empty when he may.
std::string TableWatch::whyDenied(const Table& table) try {
  m_connection.with([&table](ConnectionPointer& connection) {
    if (connection == nullptr) return;
    Tool::selectTexts(*connection,
                      "select 1 from " + Tool::quotedName(table.sqlName()) + " limit 0", 1);
  });
  return "";
} catch (const Exception& exception) {
  return Tool::isDatabaseError(exception, Tool::s_commandDenied) ? Tool::reasonOf(exception) : "";
}

// Reports tables that are missing, and forgets those of them that an administrator knows to be.
void TableWatch::noteMissing(Clock::time_point start) {
  const auto unseen = m_state.with([&](State& state) {
    std::vector<TablePointer> tables = m_tables.all();
    std::erase_if(tables, [&](const TablePointer& table) {
      return state.watched.try_emplace(table->sqlName(), table).first->second.lastLook == start;
    });
    return tables;
  });
  m_isIncomplete = !unseen.empty();
  for (const TablePointer& table : unseen) {
    const std::string& name = table->sqlName();
    const std::string denied = whyDenied(*table);
    m_state.with([&](State& state) {
      Watched& watched = state.watched.at(name);
      if (!denied.empty()) {
        if (watched.isMissing || std::exchange(watched.isDenied, true)) return;
        m_log.error(std::string("table ")
                        .append(name)
                        .append(" cannot be read: ")
                        .append(denied)
                        .append("; grant the SQL user the right to select"));
        return;
      }
      watched.isDenied = false;
      watched.readPrint.clear();
      if (!watched.isMissing) {
        watched.isMissing = true;
        watched.isConfirmed = false;
        table->setState(TableState::Missing);
        m_log.warning("table " + name + " is missing in the database: " + s_requestsOf(*table) +
                      " are answered TEMP until it is back; if it is gone for good, reload the "
                      "service");
      } else if (watched.isConfirmed && !watched.isBusy) {
        forget(watched);
        if (m_tables.find(name) == nullptr) state.watched.erase(name);
      }
    });
  }
}

// The table is gone for good.
void TableWatch::forget(Watched& watched) {
  Table& table = *watched.table;
  const std::string& name = table.sqlName();
  m_log.warning("table " + name + " is gone for good");
  table.setState(TableState::Gone);
  watched.isConfirmed = false;
  watched.read = TableState::Good;
  watched.rows = 0;
  watched.saved = 0;
  const auto read = Tool::readTableName(name);
  if (!read || !read->name.empty()) m_tables.remove(name);
  m_metrics.forgetTable(name);
  try {
    if (m_snapshots.isWanted()) m_snapshots.remove(name);
  } catch (const std::exception& exception) {
    m_log.error("table " + name + ": its snapshot cannot be removed: " + exception.what());
  }
}

template <class Change>
void TableWatch::note(const Table& table, Change change) {
  m_state.with([&](State& state) { change(state.watched.at(table.sqlName())); });
  m_wake.notify_all();
}

// Has the table read by a thread of the pool.
void TableWatch::read(Watched& watched, const Mark& mark) {
  watched.isBusy = true;
  m_readers.post([this, table = watched.table, mark, lag = lag()] {
    const Clock::time_point start = now();
    std::string why;
    try {
      readNow(*table, mark, start, lag);
    } catch (const std::exception& exception) {
      m_metrics.rebuildFailed();
      why = Tool::failureOf(exception, "").why();
    }
    const Clock::time_point end = now();
    note(*table, [&](Watched& current) {
      if (!why.empty() && !current.isFailing) {
        m_log.error("table " + table->sqlName() + " cannot be read: " + why);
      } else if (why.empty() && current.isFailing) {
        m_log.warning("table " + table->sqlName() + " can be read again");
      }
      current.isFailing = !why.empty();
      // At most half of the time is spent rereading a busy table.
      current.readAfter = end + (why.empty() ? end - start : Clock::duration(s_retry));
      current.isBusy = false;
    });
  });
}

// Reads the rows of a table, and before them, in the same transaction, what the database notes
// about it: rows of one server must not be kept under the mark of another one, which may be ahead
// of it. Nothing when the connection leads to another server than the one of `mark`.
std::optional<TableWatch::Reading> TableWatch::readRows(Database::Connection& connection,
                                                        const Table& table, const Mark& mark) {
  Database::Transaction transaction(connection);
  const auto marks = Tool::selectTexts(
      connection, s_marks("table_name = " + Tool::literal(table.sqlName())), s_markColumns);
  Reading reading{nullptr, mark};
  if (!marks.empty()) {
    const Mark here(marks[0]);
    if (here.server != mark.server) return std::nullopt;
    reading.mark.times = here.times;
    reading.mark.created = here.created;
  }
  reading.image = std::make_shared<const TableImage>(table.kind(), [&](const TakeRow& take) {
    Tool::selectPairs(connection, s_select(table), take);
  });
  transaction.rollback();
  return reading;
}

// A connection for reading a table; null when there is none to be had.
TableWatch::ConnectionPointer TableWatch::newConnection() const try {
  if (m_mismatches >= s_mostMismatches) return nullptr;
  return s_connect();
} catch (const Exception&) {
  return nullptr;
}

// Reads a table on a connection of its own; or on the connection that finds the changes, when there
// is no other, such as with settings that do not work any more, or others lead to other servers.
std::optional<TableWatch::Reading> TableWatch::readAnywhere(const Table& table, const Mark& mark) {
  const ConnectionPointer own = newConnection();
  if (own == nullptr) {
    return m_connection.with([&](ConnectionPointer& connection) {
      return connection == nullptr ? std::nullopt : readRows(*connection, table, mark);
    });
  }
  std::optional<Reading> reading = readRows(*own, table, mark);
  if (reading) {
    m_mismatches = 0;
    return reading;
  }
  // The connection that finds the changes may have stayed with a host while the others went on.
  m_state.with([](State& state) { state.isReconnecting = true; });
  if (++m_mismatches == s_mostMismatches) {
    m_log.warning(
        "connections to the database lead to different servers: tables are read one after the "
        "other, over one connection");
  }
  return reading;
}

void TableWatch::readNow(Table& table, const Mark& found, Clock::time_point start,
                         std::chrono::seconds lag) {
  const std::optional<Reading> reading = readAnywhere(table, found);
  if (!reading) return;
  const ImagePointer& image = reading->image;
  const Mark& mark = reading->mark;
  const Clock::time_point end = now();
  const Clock::duration took = end - start;
  noteNewest(end);
  m_metrics.rebuilt(took);
  const bool isFirst = table.generation() == 0;
  const bool isAccepted = accept(table, *image, mark, start);
  if (isAccepted) {
    report(table, *image);
    table.publish(image);
    table.confirm(start - lag);
  }
  // Reported once at this level: a busy table would fill the log.
  const auto tell = isFirst ? &Log::info : &Log::debug;
  (m_log.*tell)("table " + table.sqlName() + ": " + std::to_string(image->rows().size()) +
                " rows read in " +
                std::to_string(std::chrono::duration_cast<milliseconds>(took).count()) + " ms");
  note(table, [&](Watched& watched) {
    watched.readPrint = mark.print();
    watched.readStart = start;
    watched.readTime = took;
    // It may have vanished meanwhile.
    if (!isAccepted || watched.isMissing) return;
    if (table.state() != TableState::Good) {
      m_log.warning("table " + table.sqlName() + " answers again");
    }
    table.setState(TableState::Good);
  });
}

// Decides whether the table, which has the rows of `image` now, is answered from.
bool TableWatch::accept(Table& table, const TableImage& image, const Mark& mark,
                        Clock::time_point start) {
  const std::size_t count = s_count(image);
  return m_state.with([&](State& state) {
    Watched& watched = state.watched.at(table.sqlName());
    if (watched.isMissing) return false;
    // Between the last look and the reading.
    if (count < watched.rows && watched.isExchanged(mark)) watched.isReplaced = true;
    const TableState before = std::exchange(watched.read, watched.judge(count, start, quiet()));
    const std::string counts =
        std::to_string(count) + " rows instead of " + std::to_string(watched.rows);
    switch (watched.read) {
      case TableState::Empty:
        watched.isReplaced = true;
        table.setState(TableState::Empty);
        if (before == TableState::Empty) return false;
        m_log.warning("table " + table.sqlName() + " has " + counts + ": " + s_requestsOf(table) +
                      " are answered TEMP until it has rows again; if it is to be empty, reload "
                      "the service");
        return false;
      case TableState::Filling:
        if (before != TableState::Filling) watched.doubtSince = start;
        // A table that was good until now goes on answering with its last rows.
        if (table.state() != TableState::Good) table.setState(TableState::Filling);
        if (before == TableState::Filling) return false;
        m_log.warning("table " + table.sqlName() + " has " + counts +
                      ": these are not used until it has not changed for " + secondsText(quiet()) +
                      ", or the service is reloaded");
        return false;
      default:
        watched.rows = count;
        watched.isConfirmed = false;
        // Otherwise the next reading is the one of the table that was seen meanwhile.
        if (mark.print() == watched.seen) watched.isReplaced = false;
        return true;
    }
  });
}

// Reports how many rows an image leaves out, when the number has changed.
void TableWatch::report(const Table& table, const TableImage& image) {
  if (image.bytes() > m_settings.maxMemory) {
    m_log.warning("table " + table.sqlName() + " takes " + std::to_string(image.bytes() >> 20U) +
                  " MB of memory, more than --max-memory gives to answers and pages");
  }
  const BrokenRows& broken = image.brokenRows();
  const ImagePointer old = table.image();
  const std::size_t before = old == nullptr ? 0 : old->brokenRows().count();
  if (broken.count() == before) return;
  m_log.warning("table " + table.sqlName() + ": " + std::to_string(broken.count()) +
                " rows cannot be read and are left out; 'tsl-address-map check' names them");
  for (const BrokenRows::Row& row : broken.first()) {
    m_log.debug("left out: " + row.name + ": " + row.why);
  }
}

// Has a snapshot written where the last one is of an older image, or is not there any more;
// otherwise notes in it that it is still right.
void TableWatch::save(Watched& watched, Clock::time_point now) {
  if (!m_snapshots.isWanted() || now < watched.saveAfter) return;
  watched.saveAfter = now + m_settings.snapshotInterval;
  watched.isBusy = true;
  m_readers.post([this, table = watched.table, saved = watched.saved, id = watched.savedAs,
                  now = now - lag()]() mutable {
    const std::uint64_t generation = table->generation();
    std::string why;
    try {
      if (saved != generation || !m_snapshots.confirm(table->sqlName(), id, now)) {
        id = m_snapshots.save(table->sqlName(), *table->image(), now);
      }
    } catch (const std::exception& exception) {
      why = exception.what();
    }
    note(*table, [&](Watched& current) {
      if (why.empty()) {
        current.saved = generation;
        current.savedAs = id;
      } else {
        m_log.error("table " + table->sqlName() + ": no snapshot was written: " + why);
      }
      current.isBusy = false;
    });
  });
}

void TableWatch::fail(const std::string& why) {
  m_metrics.databaseError();
  noteHost("");
  disconnect();
  if (m_isFailing) return;
  m_isFailing = true;
  const Clock::time_point failed = now();
  std::string text = "the database is unavailable: " + why;
  for (const TablePointer& table : m_tables.all()) {
    const bool isAble = table->whyUnable(failed, m_settings).empty();
    text += "; table " + table->sqlName() +
            (isAble ? " answers with rows of " + secondsText(*table->age(failed)) + " ago"
                    : " cannot answer");
  }
  m_log.error(text);
}

void TableWatch::disconnect() {
  m_connection.with([](ConnectionPointer& connection) { connection.reset(); });
}

Clock::duration TableWatch::quiet() const {
  return std::max<Clock::duration>(s_quietTimes * m_settings.refresh, s_settled);
}

void TableWatch::loadSnapshots() {
  std::vector<std::string> names;
  try {
    names = m_snapshots.names();
  } catch (const std::exception& exception) {
    m_log.error(std::string("there are no snapshots: ") + exception.what());
  }
  for (const std::string& sqlName : names) {
    const TablePointer table = m_tables.add(sqlName);
    if (table == nullptr) continue;
    try {
      const Snapshot snapshot = m_snapshots.load(sqlName, table->kind());
      table->publish(snapshot.image);
      table->confirm(snapshot.confirmed);
      noteNewest(snapshot.confirmed);
      m_log.info("table " + sqlName + ": " + std::to_string(snapshot.image->rows().size()) +
                 " rows of the snapshot of " + secondsText(Clock::now() - snapshot.confirmed) +
                 " ago");
    } catch (const std::exception& exception) {
      m_log.error("the snapshot of table " + sqlName + " cannot be used: " + exception.what());
    }
  }
}

}  // namespace Tessel::Serve
