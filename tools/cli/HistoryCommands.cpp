// The command `history`, which shows who changed what, and `history prune`.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "database/Connection.h"
#include "tables/AddressKey.h"
#include "tables/HistoryReader.h"
#include "tables/HistoryRows.h"
#include "tables/OwnTables.h"
#include "tables/Retry.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Rows of a change that are shown one by one.
constexpr std::size_t s_mostShown = 10;

struct HistoryArguments {
  std::string address;
  std::optional<std::string> since;
  std::optional<std::string> until;
  std::string by;
  bool allRows = false;
  std::optional<std::string> before;  // Of `history prune`.
  bool dryRun = false;
};

// What is shown of the rows of one change, in one table.
struct Rows {
  std::vector<RowChange> shown;
  std::size_t added = 0;
  std::size_t changed = 0;
  std::size_t removed = 0;

  [[nodiscard]] std::size_t count() const { return added + changed + removed; }
  [[nodiscard]] std::string text() const {
    return std::to_string(count()) + " rows: " + std::to_string(added) + " added, " +
           std::to_string(changed) + " changed, " + std::to_string(removed) + " removed";
  }
  void add(RowChange row, bool isShown) {
    ++(!row.before ? added : !row.after ? removed : changed);
    if (isShown || shown.size() <= s_mostShown) shown.push_back(std::move(row));
  }
};

Json s_textOrNull(const std::optional<std::string>& text) {
  return text ? Json(printable(*text)) : Json();
}

Json s_jsonOf(const ChangeRecord& record, const RowChange& row) {
  Json document{{"number", record.number},     {"time", record.at},         {"user", record.user},
                {"sudoUser", record.sudoUser}, {"sqlUser", record.sqlUser}, {"host", record.host},
                {"command", record.command},   {"outcome", record.outcome}, {"table", row.table},
                {"name", printable(row.name)}};
  document["old"] = s_textOrNull(row.before);
  document["new"] = s_textOrNull(row.after);
  return document;
}

// The words after a change that was not done.
std::string s_mark(const ChangeRecord& record) {
  if (record.outcome == s_done) return "";
  return record.outcome == s_begun ? "\tinterrupted, or still running" : "\t" + record.outcome;
}

// Shows the history in one pass.
class HistoryList {
 public:
  HistoryList(Session& session, const HistoryArguments& arguments)
      : m_connection(std::string(s_database)),
        m_reader(m_connection),
        m_list(session.output()),
        m_showsAll(arguments.allRows || session.isJson()) {
    if (!arguments.address.empty()) m_key = comparisonKey(arguments.address);
    const std::string name = session.tableName();
    if (!name.empty()) m_tables = {aliasTableName(name), maskTableName(name)};
  }

  // True when there was anything to show.
  bool run(const ChangeFilter& filter) {
    for (std::uint64_t last = 0;;) {
      const std::vector<ChangeRecord> records = m_reader.changes(filter, last);
      if (records.empty()) break;
      auto record = records.begin();
      last = records.back().number;
      m_reader.forEachRow(records.front().number, last, [&](std::uint64_t number, RowChange row) {
        for (; record != records.end() && record->number < number; ++record) flush(*record);
        const bool isWanted = record != records.end() && record->number == number;
        if (!isWanted || !matches(row)) return;
        Rows& rows = m_rows[row.table];
        rows.add(std::move(row), m_showsAll);
      });
      for (; record != records.end(); ++record) flush(*record);
    }
    m_list.end();
    return m_any;
  }

 private:
  [[nodiscard]] bool matches(const RowChange& row) const {
    return (m_key.empty() || comparisonKey(addressOf(row)) == m_key) &&
           (m_tables.empty() || m_tables.contains(tableOf(row)));
  }

  // Shows what was read of the change.
  void flush(const ChangeRecord& record) {
    const std::string start = std::to_string(record.number) + "\t" + record.at.substr(0, 19) +
                              "\t" + printable(userText(record.user, record.sudoUser)) + "\t";
    for (const auto& [table, rows] : std::exchange(m_rows, {})) {
      m_any = true;
      if (!m_showsAll && rows.count() > s_mostShown) {
        m_list.add(start + table + "\t" + rows.text() + s_mark(record), [] { return Json(); });
        continue;
      }
      for (const RowChange& row : rows.shown) {
        m_list.add(start + printable(table) + "\t" + printable(textOf(row)) + s_mark(record),
                   [&] { return s_jsonOf(record, row); });
      }
    }
  }

  Database::Connection m_connection;
  HistoryReader m_reader;
  ItemList m_list;
  bool m_showsAll;
  std::string m_key;                   // Of the address; empty for all.
  std::set<std::string> m_tables;      // None for all.
  std::map<std::string, Rows> m_rows;  // Of the change that is being read, by the table.
  bool m_any = false;
};

ExitCode s_show(Session& session, const HistoryArguments& arguments) {
  ChangeFilter filter;
  if (arguments.since) filter.since = parsePastTime("--since", *arguments.since);
  if (arguments.until) filter.until = parsePastTime("--until", *arguments.until);
  filter.by = arguments.by;
  session.tellTarget();
  const bool any = HistoryList(session, arguments).run(filter);
  const std::string name = session.tableName();
  // Most likely the name is wrong, such as that of the table itself.
  if (!any && !name.empty()) {
    say("there is no such change of " + aliasTableName(name) + " or " + maskTableName(name));
  }
  return any || arguments.address.empty() ? ExitCode::Done : ExitCode::NotFound;
}

// Removes what is older than `before`, and records that. The number of changes.
std::size_t s_pruneOnce(Database::Connection& connection, const std::string& before, bool dryRun) {
  RecordedChange change(connection);
  const std::string older = " where at<" + literal(before);
  const TextRow row = selectTexts(connection,
                                  "select count(*), ifnull( max( number ), 0 ) from history" +
                                      older + (dryRun ? ";" : " for update;"),
                                  2)
                          .at(0);
  const std::size_t count = std::stoull(row[0]);
  if (dryRun || count == 0) return count;
  // By their times alone: another host's clock may be late.
  runStatement(connection, "delete from history_rows where number in( select number from history" +
                               older + " );");
  runStatement(connection, "delete from history" + older + ";");
  change.note({s_history, "", row[0] + " changes before " + before, std::nullopt});
  change.commit();
  return count;
}

ExitCode s_prune(Session& session, const HistoryArguments& arguments) {
  if (!arguments.before) {
    throw Failure(ExitCode::Usage, "history prune", "no time is given",
                  "write --before TIME, such as --before 52w");
  }
  const std::string before = parsePastTime("--before", *arguments.before);
  session.tellTarget();
  Database::Connection connection{std::string(s_database)};
  const HistoryReader reader(connection);
  const std::size_t count =
      retryLost([&] { return s_pruneOnce(connection, before, arguments.dryRun); });
  answerChange(session, Json{{"before", before}, {"removed", count}},
               "- " + std::to_string(count) + " changes before " + before, arguments.dryRun);
  if (!session.isJson() && !arguments.dryRun) session.output().line(std::to_string(count));
  return ExitCode::Done;
}

}  // namespace

void addHistoryCommand(Command& top) {
  const auto arguments = std::make_shared<HistoryArguments>();
  Command history = top.command(
      "history", "Show who changed what, the newest last",
      "  tsl-address-map history --since yesterday\n"
      "  tsl-address-map history team@example.com\n"
      "  tsl-address-map history --by ann --since '2026-12-01' --until '2026-12-02 12:00:00'\n"
      "One line for each row: NUMBER<TAB>TIME<TAB>USER<TAB>TABLE<TAB>CHANGE, in UTC; a change of"
      " more than ten rows\nof a table is one line. A change that was interrupted is marked. Exit 1"
      " when the address has no history.\nWith --json a list of {\"number\", \"time\", \"user\","
      " \"sudoUser\", \"sqlUser\", \"host\", \"command\",\n\"outcome\", \"table\", \"name\","
      " \"old\", \"new\"}, one for each row.\n",
      Preparation::Database, withArguments(s_show, arguments));
  history.optionalArgument("ADDRESS", arguments->address, "Only the rows of this address");
  history.option("--since", arguments->since, "TIME",
                 "Only changes since then: 'YYYY-MM-DD hh:mm:ss' in UTC, a date, today, yesterday,"
                 " or 30m, 2h, 3d, 1w ago");
  history.option("--until", arguments->until, "TIME", "Only changes before then");
  history.option("--by", arguments->by, "USER",
                 "Only changes by this user of the system, also through sudo, or of the database");
  history.flag("--all-rows", arguments->allRows, "Show each row of large changes, too");

  Command prune = history.command(
      "prune", "Remove what is older than a time from the history",
      "  tsl-address-map history prune --before 52w\n"
      "Prints how many changes it removed; with --json {\"before\", \"removed\"}. They cannot be"
      " undone any more.\n",
      Preparation::Database, withArguments(s_prune, arguments));
  prune.option("--before", arguments->before, "TIME", "Remove changes before then");
  addDryRun(prune, arguments->dryRun);
}

}  // namespace Tessel::Tool
