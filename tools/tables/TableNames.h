// The names of the database and of its tables: composed and parsed here and nowhere else.
#ifndef TSL_TOOLS_TABLES_TABLENAMES_H
#define TSL_TOOLS_TABLES_TABLENAMES_H

#include <optional>
#include <string>
#include <string_view>

namespace Tessel::Tool {

// The one database of the library.
inline constexpr char s_database[] = "ts_address_map";

enum class TableKind { Alias, Mask };

// "alias" or "mask": how the SQL names of tables of that kind begin, and what people call the kind.
const std::string& textOf(TableKind kind);

// The SQL name of the table of `kind` for the store name `name`, which is empty for the base table.
std::string sqlTableName(TableKind kind, const std::string& name);
std::string aliasTableName(const std::string& name);
std::string maskTableName(const std::string& name);

// What the SQL name of a table says.
struct TableName {
  TableKind kind;
  std::string name;  // The store name; empty for a base table.
};

// What the SQL table `table` is by its name; nothing when no program reads it. Its store name may
// be one that --table does not take.
std::optional<TableName> readTableName(const std::string& table);

// True for a name that --table takes.
bool isTableName(std::string_view name);

// `name` as an identifier of SQL, whatever it holds.
std::string quotedName(const std::string& name);

}  // namespace Tessel::Tool

#endif
