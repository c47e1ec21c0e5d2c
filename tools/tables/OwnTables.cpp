// The tables of this tool: their columns, and what is missing of them.
#include "tables/OwnTables.h"

#include <algorithm>

#include "database/QueryDescribeTable.h"

namespace Tessel::Tool {

namespace {

struct Column {
  const char* name;
  const char* definition;
};

// A later version adds columns at the end, and nothing else.
struct OwnTable {
  const char* name;
  std::vector<Column> columns;
  const char* keys;
};

const std::vector<OwnTable>& s_ownTables() {
  static const std::vector<OwnTable> s_tables{
      {s_rules,
       {{"table_name", "varchar( 64 ) not null"},
        {"name", "varchar( 255 ) not null"},
        {"writers", "varchar( 16 ) not null"},
        {"listed", "mediumtext not null"},
        {"owners", "mediumtext not null"},
        {"expires", "datetime"},
        {"note", "text not null"},
        {"contact", "varchar( 255 ) not null"}},
       "primary key( table_name, name )"},
      {s_history,
       {{"number", "bigint unsigned not null auto_increment"},
        {"at", "datetime( 6 ) not null"},
        {"os_user", "varchar( 255 ) not null"},
        {"sudo_user", "varchar( 255 ) not null"},
        {"sql_user", "varchar( 255 ) not null"},
        {"host", "varchar( 255 ) not null"},
        {"command", "text not null"},
        {"outcome", "varchar( 8 ) not null"}},
       "primary key( number ), key( at )"},
      {s_historyRows,
       {{"number", "bigint unsigned not null"},
        {"place", "int unsigned not null"},
        {"table_name", "varchar( 64 ) not null"},
        {"name", "varchar( 320 ) not null"},
        {"old_text", "mediumtext"},
        {"new_text", "mediumtext"},
        {"row_count", "int unsigned not null"}},
       "primary key( number, place ), key( table_name, name )"},
  };
  return s_tables;
}

std::string s_creation(const OwnTable& table) {
  std::string text = std::string("create table ") + table.name + "( ";
  for (const Column& column : table.columns) {
    text.append(column.name).append(" ").append(column.definition).append(", ");
  }
  return text + table.keys + " ) engine=InnoDB;";
}

}  // namespace

std::vector<OwnStep> missingOwnTables(Database::Connection& connection,
                                      const std::set<std::string>& present) {
  std::vector<OwnStep> steps;
  for (const OwnTable& table : s_ownTables()) {
    if (!present.contains(table.name)) {
      steps.push_back({table.name, std::string("create table ") + table.name, s_creation(table)});
      continue;
    }
    const Database::QueryDescribeTable description(connection, table.name);
    for (const Column& column : table.columns) {
      const bool isPresent = std::any_of(
          description.fields().begin(), description.fields().end(),
          [&column](const Database::Field& field) { return field.name == column.name; });
      if (isPresent) continue;
      steps.push_back({table.name,
                       std::string("add the column ") + column.name + " to table " + table.name,
                       std::string("alter table ") + table.name + " add " + column.name + " " +
                           column.definition + ";"});
    }
  }
  return steps;
}

}  // namespace Tessel::Tool
