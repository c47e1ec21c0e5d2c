// The history as it was recorded: changes and their rows, the oldest first.
#ifndef TSL_TOOLS_TABLES_HISTORYREADER_H
#define TSL_TOOLS_TABLES_HISTORYREADER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "database/Connection.h"
#include "tables/History.h"

namespace Tessel::Tool {

// One change.
struct ChangeRecord {
  std::uint64_t number = 0;
  std::string at;  // UTC: "2026-12-31 23:59:59.123456".
  std::string user;
  std::string sudoUser;
  std::string sqlUser;
  std::string host;
  std::string command;
  std::string outcome;
};

// Which changes; all where a field is empty.
struct ChangeFilter {
  std::string since;  // As timeText() has it; at that time or later.
  std::string until;  // Before that time.
  std::string by;     // A user of the operating system, behind sudo, or of the database.
  std::optional<std::uint64_t> number;
};

// Called with a row of the change `number`.
using TakeRow = std::function<void(std::uint64_t number, RowChange row)>;

// Reads in parts, so however long the history is, it takes little memory. What is called may run
// statements on the connection. Each throws Exception when the database cannot answer. One thread.
class HistoryReader {
 public:
  // `connection` must outlive the object. Throws Failure, `Configuration`, when the database has no
  // history.
  explicit HistoryReader(Database::Connection& connection);

  // The changes after `last`; at most some hundred, none when there are no more.
  std::vector<ChangeRecord> changes(const ChangeFilter& filter, std::uint64_t last);
  // Calls `take` for each row of the changes `first` to `last`, also for those of others between.
  void forEachRow(std::uint64_t first, std::uint64_t last, const TakeRow& take);
  // The number of the first change at `since` or later; nothing when there is none.
  std::optional<std::uint64_t> firstSince(const std::string& since);
  // The time of the first change; empty when there is none.
  std::string begin();

 private:
  Database::Connection& m_connection;
};

}  // namespace Tessel::Tool

#endif
