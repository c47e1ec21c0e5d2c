// Which tables of the database are this library's.
#include "tables/OurTables.h"

#include <algorithm>
#include <cstdlib>

#include "map/AddressMapMySQL.h"
#include "tables/AliasGraph.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_longestTableName = 58;  // "alias_" and it are the 64 of an SQL name.

bool s_isNameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

bool isTableName(std::string_view name) {
  return !name.empty() && name.size() <= s_longestTableName &&
         std::all_of(name.begin(), name.end(), s_isNameCharacter);
}

std::optional<TableName> readTableName(const std::string& table) {
  for (const std::string& group : {s_alias, s_mask}) {
    if (table == group) return TableName{group, ""};
    if (table.starts_with(group + "_")) return TableName{group, table.substr(group.size() + 1)};
  }
  return std::nullopt;
}

std::uint64_t countRows(Database::Connection& connection, const std::string& table) {
  const auto rows = selectTexts(connection, "select count(*) from " + quotedName(table) + ";", 1);
  return std::strtoull(rows.at(0).at(0).c_str(), nullptr, 10);
}

}  // namespace Tessel::Tool
