// The history as it was recorded.
#include "tables/HistoryReader.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "database/QueryTableNames.h"
#include "failure/Failure.h"
#include "tables/OwnTables.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// Of one statement. Rows may be packed ones of 256 KiB.
constexpr char s_mostChanges[] = "500";
constexpr std::size_t s_mostRows = 50;

std::uint64_t s_number(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

std::string s_conditions(const ChangeFilter& filter) {
  std::string text;
  if (!filter.since.empty()) text += " and at>=" + literal(filter.since);
  if (!filter.until.empty()) text += " and at<" + literal(filter.until);
  if (filter.number) text += " and number=" + std::to_string(*filter.number);
  if (!filter.by.empty()) {
    const std::string user = literal(filter.by);
    text += " and ( " + user +
            " in( os_user, sudo_user, sql_user ) or substring_index( sql_user, '@', 1 )=" + user +
            " )";
  }
  return text;
}

// A text behind "=", which an SQL null is without.
std::optional<std::string> s_text(const std::string& column) {
  return column.empty() ? std::nullopt : std::optional(column.substr(1));
}

}  // namespace

HistoryReader::HistoryReader(Database::Connection& connection) : m_connection(connection) {
  if (Database::QueryTableNames(connection).names().contains(s_history)) return;
  throw Failure(
      ExitCode::Configuration, "the history",
      std::string("database ") + s_database + " has no table history, or none for this user",
      "create it with 'tsl-address-map init'; it begins then");
}

std::vector<ChangeRecord> HistoryReader::changes(const ChangeFilter& filter, std::uint64_t last) {
  std::vector<ChangeRecord> records;
  for (TextRow& row : selectTexts(
           m_connection,
           std::string("select number, at, os_user, sudo_user, sql_user, host, command, outcome"
                       " from history where number>") +
               std::to_string(last) + s_conditions(filter) + " order by number limit " +
               s_mostChanges + ";",
           8)) {
    records.push_back({s_number(row[0]), std::move(row[1]), std::move(row[2]), std::move(row[3]),
                       std::move(row[4]), std::move(row[5]), std::move(row[6]), std::move(row[7])});
  }
  return records;
}

void HistoryReader::forEachRow(std::uint64_t first, std::uint64_t last, const TakeRow& take) {
  std::string after = "number>=" + std::to_string(first);
  for (std::size_t count = s_mostRows; count == s_mostRows;) {
    const auto rows = selectTexts(
        m_connection,
        "select number, place, table_name, name, concat( '=', old_text ), concat( '=', new_text ),"
        " row_count from history_rows where ( " +
            after + " ) and number<=" + std::to_string(last) + " order by number, place limit " +
            std::to_string(s_mostRows) + ";",
        7);
    count = rows.size();
    for (const TextRow& row : rows) {
      const std::uint64_t number = s_number(row[0]);
      RowChange change{row[2], row[3], s_text(row[4]), s_text(row[5])};
      if (row[6] == "1") {
        take(number, std::move(change));
      } else {
        unpack(change.table, change.after.value_or(""),
               [&](RowChange one) { take(number, std::move(one)); });
      }
    }
    if (count == 0) return;
    after = "number>" + rows.back()[0] + " or number=" + rows.back()[0] + " and place>" +
            rows.back()[1];
  }
}

std::optional<std::uint64_t> HistoryReader::firstSince(const std::string& since) {
  const auto rows = selectTexts(
      m_connection, "select min( number ) from history where at>=" + literal(since) + ";", 1);
  const std::uint64_t number = s_number(rows.at(0).at(0));
  return number == 0 ? std::nullopt : std::optional(number);
}

std::string HistoryReader::begin() {
  return selectTexts(m_connection, "select min( at ) from history;", 1).at(0).at(0);
}

}  // namespace Tessel::Tool
