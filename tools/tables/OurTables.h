// Which tables of the database are this library's, by their names.
#ifndef TSL_TOOLS_TABLES_OURTABLES_H
#define TSL_TOOLS_TABLES_OURTABLES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "database/Connection.h"

namespace Tessel::Tool {

// What the SQL name of a table tells.
struct TableName {
  std::string group;  // "alias" or "mask".
  std::string name;   // The store name; empty for a base table.
};

// True for a name that --table takes.
bool isTableName(std::string_view name);

// What the SQL table `table` is by its name; nothing when no program reads it. Its store name may
// be one that --table does not take.
std::optional<TableName> readTableName(const std::string& table);

// Number of rows of the SQL table `table` of the selected database. Throws Exception.
std::uint64_t countRows(Database::Connection& connection, const std::string& table);

}  // namespace Tessel::Tool

#endif
