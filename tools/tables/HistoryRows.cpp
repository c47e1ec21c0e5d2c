// The rows of all tables as the history names them.
#include "tables/HistoryRows.h"

#include <set>
#include <string_view>
#include <utility>

#include "base/Exception.h"
#include "base/sizes.h"
#include "failure/Failure.h"
#include "tables/AliasRule.h"
#include "tables/OwnTables.h"
#include "tables/TableFormat.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// Bytes of one statement, unless a single row is longer.
constexpr std::size_t s_listBytes = 64_KiB;

// How the rows of one kind of table are read and written.
struct RowKind {
  std::string columns;      // Of a row, the key first.
  std::string key;          // As "delete" and "select" compare it.
  bool isRewritten;         // A changed row goes, and comes as it is then.
  std::string onDuplicate;  // How a changed row is written otherwise.
  std::string (*keyOf)(const std::string& name);
  std::string (*valuesOf)(const std::string& name, const std::string& text);
  // The name and the text.
  std::pair<std::string, std::string> (*read)(const TextRow& row);
};

std::string s_addressKey(const std::string& name) {
  return literal(name);
}

std::string s_addressValues(const std::string& name, const std::string& text) {
  return "( " + literal(name) + "," + literal(text) + " )";
}

std::pair<std::string, std::string> s_addressRow(const TextRow& row) {
  return {row[0], row[1]};
}

std::pair<std::string, std::string> s_parted(const std::string& name) {
  const std::size_t blank = name.find(' ');
  if (blank == std::string::npos) return {"", name};
  return {name.substr(0, blank), name.substr(blank + 1)};
}

std::string s_ruleKey(const std::string& name) {
  const auto [table, address] = s_parted(name);
  return "( " + literal(table) + "," + literal(address) + " )";
}

std::string s_ruleValues(const std::string& name, const std::string& text) {
  const auto [table, address] = s_parted(name);
  const AliasRule rule = parseRule(text);
  return "( " + literal(table) + "," + literal(address) + "," + literal(textOf(rule.writers)) +
         "," + literal(joined(rule.listed)) + "," + literal(joined(rule.owners)) + "," +
         (rule.expires ? literal(timeText(*rule.expires)) : "null") + "," + literal(rule.note) +
         "," + literal(rule.contact.address()) + " )";
}

std::pair<std::string, std::string> s_ruleRow(const TextRow& row) {
  const auto rule = readRule(row, 2);
  return {row[0] + " " + row[1], rule ? ruleText(*rule) : "(no rule)"};
}

RowKind s_kindOf(const std::string& table) {
  if (table == s_rules) {
    return {"table_name, name, writers, listed, owners, expires, note, contact",
            "( table_name, name )",
            true,
            "",
            s_ruleKey,
            s_ruleValues,
            s_ruleRow};
  }
  const bool isMask = readTableName(table)->kind == TableKind::Mask;
  const TableFormat& format = isMask ? TableFormat::mask() : TableFormat::alias();
  return {std::string(format.key) + ", " + format.value,
          format.key,
          isMask,  // Public addresses may be swapped.
          " on duplicate key update members=values( members )",
          s_addressKey,
          s_addressValues,
          s_addressRow};
}

// The statement that reads rows.
std::string s_selection(const RowKind& kind, const std::string& table) {
  const std::string columns =
      table == s_rules ? std::string("table_name, name, ") + s_ruleColumns : kind.columns;
  return "select " + columns + " from " + quotedName(table);
}

// Calls `send` with lists of `items` that are not too long.
template <class Send>
void s_forEachList(const std::vector<std::string>& items, Send send) {
  std::string list;
  for (const std::string& item : items) {
    if (!list.empty() && list.size() + item.size() > s_listBytes) {
      send(std::exchange(list, ""));
    }
    list += (list.empty() ? "" : ",") + item;
  }
  if (!list.empty()) send(list);
}

unsigned int s_columnsOf(const std::string& table) {
  return table == s_rules ? 8 : 2;
}

}  // namespace

bool isRow(const RowChange& change) {
  return !change.name.empty() && (change.table == s_rules || readTableName(change.table));
}

std::string addressOf(const RowChange& change) {
  return change.table == s_rules ? s_parted(change.name).second : change.name;
}

std::string tableOf(const RowChange& change) {
  return change.table == s_rules ? s_parted(change.name).first : change.table;
}

TextsByName readRows(Database::Connection& connection, const std::string& table,
                     const std::vector<std::string>& names, bool lock) {
  const RowKind kind = s_kindOf(table);
  const std::set<std::string> wanted(names.begin(), names.end());
  std::vector<std::string> keys;
  keys.reserve(names.size());
  for (const std::string& name : names) keys.push_back(kind.keyOf(name));
  TextsByName texts;
  s_forEachList(keys, [&](const std::string& list) {
    const std::string statement = s_selection(kind, table) + " where " + kind.key + " in( " + list +
                                  " )" + (lock ? " for update;" : ";");
    for (const TextRow& row : selectTexts(connection, statement, s_columnsOf(table))) {
      // The collation may find more than was asked for.
      auto [name, text] = kind.read(row);
      if (wanted.contains(name)) texts.emplace(std::move(name), std::move(text));
    }
  });
  return texts;
}

void forEachRow(Database::Connection& connection, const std::string& table,
                const std::function<void(const std::string& name, const std::string& text)>& take) {
  const RowKind kind = s_kindOf(table);
  for (const TextRow& row :
       selectTexts(connection, s_selection(kind, table) + ";", s_columnsOf(table))) {
    const auto [name, text] = kind.read(row);
    take(name, text);
  }
}

void writeRows(Database::Connection& connection, const std::string& table,
               const std::vector<RowChange>& changes) {
  const RowKind kind = s_kindOf(table);
  std::vector<std::string> doomed;
  std::vector<std::string> changed;
  std::vector<std::string> added;
  for (const RowChange& change : changes) {
    const bool isChanged = change.before && change.after && !kind.isRewritten;
    if (change.before && !isChanged) doomed.push_back(kind.keyOf(change.name));
    if (!change.after) continue;
    (isChanged ? changed : added).push_back(kind.valuesOf(change.name, *change.after));
  }
  const std::string insertion =
      "insert into " + quotedName(table) + " ( " + kind.columns + " ) values ";
  try {
    s_forEachList(doomed, [&](const std::string& list) {
      runStatement(connection, "delete from " + quotedName(table) + " where " + kind.key + " in( " +
                                   list + " );");
    });
    s_forEachList(changed, [&](const std::string& list) {
      runStatement(connection, insertion + list + kind.onDuplicate + ";");
    });
    s_forEachList(
        added, [&](const std::string& list) { runStatement(connection, insertion + list + ";"); });
  } catch (const Exception& exception) {
    if (!isDatabaseError(exception, s_duplicateEntry)) throw;
    throw Failure(ExitCode::BadData, "table " + table,
                  "another row has an address that would come back: " + reasonOf(exception),
                  "nothing was changed; remove or change that row first");
  }
}

}  // namespace Tessel::Tool
