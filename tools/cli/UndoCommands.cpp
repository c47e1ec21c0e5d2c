// The commands `diff`, which compares the tables with those of an earlier time, and `undo`.
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "database/Connection.h"
#include "tables/AliasChange.h"
#include "tables/HistoryReader.h"
#include "tables/HistoryRows.h"
#include "tables/Retry.h"
#include "tables/TableFormat.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Rows in the way of `undo` that are named one by one.
constexpr std::size_t s_mostNamed = 10;

using Text = std::optional<std::string>;

struct DiffArguments {
  std::string since;
};

struct UndoArguments {
  std::vector<std::string> numbers;
  bool allowCycle = false;
  bool dryRun = false;
};

// What became of rows between two times, by table and name.
struct Net {
  Text before;
  Text after;
  bool isWhole = true;  // Each change began with what the one before it left.
};
using Nets = std::map<std::string, std::map<std::string, Net>>;

void s_addLater(Nets& nets, RowChange row) {
  auto& names = nets[row.table];
  const auto [net, isNew] = names.try_emplace(row.name, Net{row.before, row.after});
  if (isNew) return;
  if (net->second.after != row.before) net->second.isWhole = false;
  net->second.after = std::move(row.after);
}

std::vector<std::string> s_namesOf(const std::map<std::string, Net>& nets) {
  std::vector<std::string> names;
  names.reserve(nets.size());
  for (const auto& [name, net] : nets) names.push_back(name);
  return names;
}

Text s_find(const TextsByName& texts, const std::string& name) {
  const auto found = texts.find(name);
  return found == texts.end() ? std::nullopt : Text(found->second);
}

std::string s_lineOf(const std::string& name, const Text& text) {
  return printable(name + ":" + text.value_or(""));
}

Json s_jsonOf(const RowChange& row) {
  Json document{{"table", row.table},
                {"change", textOf(row).substr(0, 1)},
                {"line", s_lineOf(row.name, row.after ? row.after : row.before)}};
  if (row.before && row.after) document["former"] = s_lineOf(row.name, row.before);
  return document;
}

std::string s_shown(const RowChange& row) {
  return printable(row.table) + "\t" + printable(textOf(row));
}

// The rows of a table that may be gone.
TextsByName s_present(Database::Connection& connection, const std::string& table,
                      const std::vector<std::string>& names) {
  try {
    return readRows(connection, table, names, false);
  } catch (const Exception& exception) {
    if (!isDatabaseError(exception, s_noSuchTable)) throw;
    return {};
  }
}

// What has changed in rows since `since`, and how many other changes there were.
Nets s_changedSince(HistoryReader& reader, const Session& session, const std::string& since,
                    std::set<std::uint64_t>& others) {
  Nets nets;
  const auto first = reader.firstSince(since);
  if (!first) return nets;
  const std::string name = session.tableName();
  reader.forEachRow(
      *first, std::numeric_limits<std::int64_t>::max(), [&](std::uint64_t number, RowChange row) {
        const std::string table = tableOf(row);
        const bool isWanted =
            name.empty() || table == aliasTableName(name) || table == maskTableName(name);
        if (!isWanted) return;
        if (isRow(row)) return s_addLater(nets, std::move(row));
        others.insert(number);
      });
  return nets;
}

ExitCode s_diff(Session& session, const DiffArguments& arguments) {
  const std::string since = parsePastTime("time", arguments.since);
  session.tellTarget();
  Database::Connection connection{std::string(s_database)};
  HistoryReader reader(connection);
  warnOfBegin(reader, since);
  std::set<std::uint64_t> others;
  const Nets nets = s_changedSince(reader, session, since, others);
  ItemList list(session.output());
  for (const auto& [table, rows] : nets) {
    const TextsByName present = s_present(connection, table, s_namesOf(rows));
    for (const auto& [name, net] : rows) {
      const RowChange row{table, name, net.before, s_find(present, name)};
      if (row.before == row.after) continue;
      list.add(s_shown(row), [&row] { return s_jsonOf(row); });
    }
  }
  list.end();
  if (!others.empty()) {
    say("not compared: " + std::to_string(others.size()) +
        " changes of whole tables, domains, users or the history; 'tsl-address-map history'"
        " shows them");
  }
  return ExitCode::Done;
}

std::vector<std::uint64_t> s_parseNumbers(const std::vector<std::string>& texts) {
  std::set<std::uint64_t> numbers;
  for (const std::string& text : texts) {
    std::uint64_t number = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (error != std::errc() || end != last || number == 0) {
      throw Failure(ExitCode::Usage, "change '" + text + "'", "it is not the number of a change",
                    "'tsl-address-map history' shows the numbers");
    }
    numbers.insert(number);
  }
  return {numbers.begin(), numbers.end()};
}

Failure s_notUndone(std::uint64_t number, const std::string& why, const std::string& hint) {
  return {ExitCode::BadData, "change " + std::to_string(number), why,
          "nothing was changed; " + hint};
}

// The one record. Throws Failure when there is none, or it was not done.
void s_requireDone(HistoryReader& reader, std::uint64_t number) {
  ChangeFilter filter;
  filter.number = number;
  const auto records = reader.changes(filter, 0);
  if (records.empty()) {
    throw Failure(ExitCode::NotFound, "change " + std::to_string(number), "there is none",
                  "'tsl-address-map history' shows the numbers");
  }
  if (records.front().outcome == s_done) return;
  throw s_notUndone(number, "it was interrupted, or has failed, or is still running",
                    "'tsl-address-map status' and 'domain list' show what is there");
}

// What is to be done instead of taking `row` back, which is no row of a table.
std::string s_insteadOf(const RowChange& row) {
  if (row.table == s_domainsName || row.table == s_usersName) {
    return "it changed the configuration: use 'domain add', 'domain remove', 'user add' or 'user"
           " remove', or import an export of the configuration";
  }
  return row.after ? "it made or completed a table: 'table drop' drops a named one"
                   : "it removed more than rows: import an export, or restore a backup";
}

// What the changes `numbers` did together, the oldest first.
Nets s_netOf(HistoryReader& reader, const std::vector<std::uint64_t>& numbers) {
  Nets nets;
  for (const std::uint64_t number : numbers) {
    s_requireDone(reader, number);
    reader.forEachRow(number, number, [&](std::uint64_t /*number*/, RowChange row) {
      if (!isRow(row)) {
        throw s_notUndone(number, "it cannot be taken back", s_insteadOf(row));
      }
      s_addLater(nets, std::move(row));
    });
  }
  return nets;
}

// Names a row that is in the way.
class Conflicts {
 public:
  void add(const std::string& table, const std::string& name, const std::string& why) {
    if (++m_count <= s_mostNamed) say("table " + table + ": " + name + ": " + why);
  }
  void refuse() const {
    if (m_count == 0) return;
    if (m_count > s_mostNamed) say("and " + std::to_string(m_count - s_mostNamed) + " more rows");
    throw Failure(ExitCode::BadData, "undo",
                  std::to_string(m_count) + " rows are not as the changes have left them",
                  "nothing was changed; 'tsl-address-map history ADDRESS' shows what changed them"
                  " since; undo that, too");
  }

 private:
  std::size_t m_count = 0;
};

std::string s_state(const Text& text) {
  constexpr std::size_t s_most = 200;
  if (!text) return "absent";
  return "'" + text->substr(0, s_most) + (text->size() > s_most ? "...'" : "'");
}

// The rows of `table` as they are and are to become.
std::vector<RowChange> s_backOf(Database::Connection& connection, const std::string& table,
                                const std::map<std::string, Net>& nets, bool lock,
                                Conflicts& conflicts) {
  std::vector<RowChange> back;
  const TextsByName present = readRows(connection, table, s_namesOf(nets), lock);
  for (const auto& [name, net] : nets) {
    const Text now = s_find(present, name);
    if (!net.isWhole) {
      conflicts.add(table, name, "another change between them has changed it");
    } else if (now != net.after) {
      conflicts.add(table, name, "it is " + s_state(now) + ", and was left " + s_state(net.after));
    } else if (net.before != net.after) {
      back.push_back({table, name, net.after, net.before});
    }
  }
  return back;
}

// Refuses `rows`, which are about to be written into the alias table `table`, when one that comes
// back leads to itself by others that have changed since, unless `allowCycle`. Throws Failure,
// `BadData`. Warns of all-users markers that are lost then: mail for them waits, while a wrong
// import may have to be taken back at once.
void s_refuseHarm(Database::Connection& connection, const std::string& table,
                  const std::vector<RowChange>& rows, bool allowCycle) {
  std::map<std::string, const RowChange*> byName;
  std::vector<TableEntry> entries;
  std::vector<const RowChange*> written;
  RowReader reader(TableKind::Alias);
  for (const RowChange& row : rows) {
    byName.emplace(row.name, &row);
    TableEntry entry;
    if (!row.after || readEntry(reader, row.name, *row.after, entry)) continue;
    entries.push_back(std::move(entry));
    written.push_back(&row);
  }
  AliasChange change;
  for (const TableEntry& entry : entries) change.write(entry);
  for (std::size_t i = 0; i < written.size(); ++i) {
    if (written[i]->before) change.setBefore(i, *written[i]->before);
  }
  forEachRow(connection, table, [&](const std::string& name, const std::string& text) {
    const auto found = byName.find(name);
    if (found == byName.end()) {
      change.keep(name, text);
    } else if (!found->second->after) {
      change.remove(name, text);
    }
  });
  for (const AliasLoop& loop : change.loops()) {
    if (!loop.isNew) continue;
    const std::string why = "it would lead back to itself: " + textOf(loop.path);
    if (!allowCycle) {
      throw Failure(ExitCode::BadData, "alias " + entries[loop.row].key.address(), why,
                    "nothing was changed; give --allow-cycle if that is wanted");
    }
    say("warning: alias " + entries[loop.row].key.address() + ": " + why);
  }
  for (const LostMarker& lost : change.lostMarkers()) {
    if (!lost.isNew) continue;
    say("warning: " + (lost.isOfRow ? "alias " + lost.alias + ": " : "") + lost.why());
  }
}

// Takes the changes back in one transaction. Returns what becomes of the rows.
std::vector<RowChange> s_undoOnce(Database::Connection& connection,
                                  const std::vector<std::uint64_t>& numbers,
                                  const UndoArguments& arguments) {
  const bool dryRun = arguments.dryRun;
  RecordedChange change(connection);
  HistoryReader reader(connection);
  Conflicts conflicts;
  std::vector<std::vector<RowChange>> tables;
  for (const auto& [table, nets] : s_netOf(reader, numbers)) {
    tables.push_back(s_backOf(connection, table, nets, !dryRun, conflicts));
  }
  conflicts.refuse();
  std::vector<RowChange> all;
  for (std::vector<RowChange>& rows : tables) {
    if (rows.empty()) continue;
    const std::string table = rows.front().table;
    const auto known = readTableName(table);
    if (known && known->kind == TableKind::Alias) {
      s_refuseHarm(connection, table, rows, arguments.allowCycle);
    }
    if (!dryRun) writeRows(connection, table, rows);
    for (RowChange& row : rows) {
      if (!dryRun) change.note(row);
      all.push_back(std::move(row));
    }
  }
  if (!dryRun) change.commit();
  return all;
}

ExitCode s_undo(Session& session, const UndoArguments& arguments) {
  const std::vector<std::uint64_t> numbers = s_parseNumbers(arguments.numbers);
  session.tellTarget();
  Database::Connection connection{std::string(s_database)};
  const std::vector<RowChange> rows =
      retryLost([&] { return s_undoOnce(connection, numbers, arguments); });
  const auto count = [&rows](auto is) { return std::count_if(rows.begin(), rows.end(), is); };
  const auto added = count([](const RowChange& row) { return !row.before; });
  const auto removed = count([](const RowChange& row) { return !row.after; });
  const auto changed = static_cast<std::ptrdiff_t>(rows.size()) - added - removed;
  if (session.isJson()) {
    Json document{
        {"undone", numbers}, {"added", added}, {"changed", changed}, {"removed", removed}};
    if (arguments.dryRun) {
      document["rows"] = Json::array();
      for (const RowChange& row : rows) document["rows"].push_back(s_jsonOf(row));
    }
    answerChange(session, document, "", arguments.dryRun);
    return ExitCode::Done;
  }
  if (arguments.dryRun) {
    for (const RowChange& row : rows) session.output().line(s_shown(row));
  }
  session.output().line(std::to_string(added) + " added, " + std::to_string(changed) +
                        " changed, " + std::to_string(removed) + " removed");
  return ExitCode::Done;
}

}  // namespace

void addDiffCommand(Command& top) {
  const auto arguments = std::make_shared<DiffArguments>();
  Command diff = top.command(
      "diff", "Show what is different from an earlier time",
      "  tsl-address-map diff yesterday\n"
      "  tsl-address-map diff '2026-12-01 08:00:00' --table sales\n"
      "Compares the rows that have changed since with what they were: TABLE<TAB>CHANGE, a change"
      " being a row that was\nadded (+), changed (~) or removed (-). With --json a list of"
      " {\"table\", \"change\", \"line\", \"former\"}.\n",
      Preparation::Database, withArguments(s_diff, arguments));
  diff.argument("SINCE", arguments->since,
                "The time: 'YYYY-MM-DD hh:mm:ss' in UTC, a date, today, yesterday, or 30m, 2h, 3d,"
                " 1w ago");
}

void addUndoCommand(Command& top) {
  const auto arguments = std::make_shared<UndoArguments>();
  Command undo = top.command(
      "undo", "Take changes of rows back",
      "  tsl-address-map history --since 1h\n"
      "  tsl-address-map undo 12 --dry-run\n"
      "  tsl-address-map undo 12 13\n"
      "All rows of the changes become what they were before, in one transaction, which is a change"
      " of its own. A row\nthat is no longer as the changes have left it is named, and nothing is"
      " changed then (65). Exit 1 when there is no\nsuch change. Prints how many rows were added,"
      " changed and removed; with --json\n{\"undone\", \"added\", \"changed\", \"removed\"}, with"
      " --dry-run also \"rows\".\n",
      Preparation::Database, withArguments(s_undo, arguments));
  undo.arguments("NUMBER", arguments->numbers, "The number of a change, as 'history' shows it");
  undo.flag("--allow-cycle", arguments->allowCycle,
            "Also when aliases then lead back to themselves by rows that have changed since");
  addDryRun(undo, arguments->dryRun);
}

}  // namespace Tessel::Tool
