// The names of the database and of its tables.
#include "tables/TableNames.h"

#include <algorithm>
#include <cstddef>

#include "map/AddressMapMySQL.h"

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_longestTableName = 58;  // "alias_" and it are the 64 of an SQL name.

bool s_isNameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

const std::string& textOf(TableKind kind) {
  return kind == TableKind::Alias ? s_alias : s_mask;
}

std::string sqlTableName(TableKind kind, const std::string& name) {
  const std::string base = textOf(kind);
  return name.empty() ? base : base + "_" + name;
}

std::string aliasTableName(const std::string& name) {
  return sqlTableName(TableKind::Alias, name);
}

std::string maskTableName(const std::string& name) {
  return sqlTableName(TableKind::Mask, name);
}

std::optional<TableName> readTableName(const std::string& table) {
  for (const TableKind kind : {TableKind::Alias, TableKind::Mask}) {
    const std::string base = textOf(kind);
    if (table == base) return TableName{kind, ""};
    const std::string start = base + "_";
    if (table.starts_with(start) && table != start) {
      return TableName{kind, table.substr(start.size())};
    }
  }
  return std::nullopt;
}

bool isTableName(std::string_view name) {
  return !name.empty() && name.size() <= s_longestTableName &&
         std::all_of(name.begin(), name.end(), s_isNameCharacter);
}

std::string quotedName(const std::string& name) {
  std::string quoted = "`";
  for (const char c : name) {
    quoted += c;
    if (c == '`') quoted += c;
  }
  return quoted + "`";
}

}  // namespace Tessel::Tool
