// Reads the state of the database, and completes it.
#include "tables/Schema.h"

#include <list>
#include <map>
#include <string_view>

#include "base/Exception.h"
#include "database/QueryDescribeTable.h"
#include "database/QueryTableNames.h"
#include "failure/Failure.h"
#include "map/AddressMapMySQL.h"
#include "tables/History.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// The server's answer to what it cannot do in its present role.
constexpr unsigned int s_notSupported = 1235;

using Columns = std::map<std::string, Database::Field>;

// Takes the column `name` out of `columns`, and notes when it is missing or of a type that starts
// with none of `types`. The type, or empty text.
std::string s_take(Columns& columns, const std::string& table, const std::string& name,
                   const std::list<std::string_view>& types, Schema& schema) {
  const auto column = columns.find(name);
  if (column == columns.end()) {
    schema.unfitting.push_back("table " + table + " has no column " + name);
    return "";
  }
  std::string type = column->second.type;
  columns.erase(column);
  for (const std::string_view known : types) {
    if (type.starts_with(known)) return type;
  }
  std::string problem = "column ";
  problem.append(name).append(" of table ").append(table).append(" is of type ").append(type);
  schema.unfitting.push_back(problem);
  return "";
}

void s_noteUnknown(const Columns& columns, const std::string& table, Schema& schema) {
  for (const auto& [name, field] : columns) {
    schema.unfitting.push_back(
        std::string("table ").append(table).append(" has the unknown column ").append(name));
  }
}

// Throws Exception when the user may not read the whole table. The server shows a user only the
// tables and columns that it has rights on; without this, the others would seem to be missing.
void s_requireReadable(Database::Connection& connection, const std::string& table) {
  selectTexts(connection, "select * from " + quotedName(table) + " limit 0;", 0);
}

// False when there is no such table.
bool s_exists(Database::Connection& connection, const Schema& schema, const std::string& table) {
  if (schema.tables.count(table) != 0) return true;
  try {
    s_requireReadable(connection, table);
    return true;
  } catch (const Exception& exception) {
    if (isDatabaseError(exception, s_noSuchTable)) return false;
    throw;
  }
}

Columns s_describe(Database::Connection& connection, const std::string& table) {
  s_requireReadable(connection, table);
  Columns columns;
  const Database::QueryDescribeTable description(connection, table);
  for (const Database::Field& field : description.fields()) columns[field.name] = field;
  return columns;
}

void s_lookAtMask(Database::Connection& connection, const std::string& table, Schema& schema) {
  Columns columns = s_describe(connection, table);
  const auto known = columns.find("public");
  // A creation that was cut short leaves the table without it.
  if (known != columns.end() && known->second.key != "UNI") {
    schema.missing.push_back(SchemaStep::AddPublicIndex);
  }
  s_take(columns, table, "private", {"varchar("}, schema);
  s_take(columns, table, "public", {"varchar("}, schema);
  s_noteUnknown(columns, table, schema);
}

void s_lookAtAlias(Database::Connection& connection, const std::string& table, Schema& schema) {
  Columns columns = s_describe(connection, table);
  s_take(columns, table, "name", {"varchar("}, schema);
  const std::string members =
      s_take(columns, table, "members", {"mediumtext", "longtext", "text", "tinytext", "varchar("},
             schema);
  if (columns.count("all_users") == 0) {
    schema.missing.push_back(SchemaStep::AddAllUsers);
  } else {
    s_take(columns, table, "all_users", {"tinyint"}, schema);
  }
  // Older tables have a smaller type. An upgrade that was cut short leaves it behind.
  if (!members.empty() && members != "mediumtext" && members != "longtext") {
    schema.missing.push_back(SchemaStep::WidenMembers);
  }
  s_noteUnknown(columns, table, schema);
}

}  // namespace

PreparationLock::PreparationLock(Database::Connection& connection) : m_connection(connection) {
  try {
    const auto rows = selectTexts(connection, "select get_lock( 'tsl-address-map init', 60 );", 1);
    m_held = rows.at(0).at(0) == "1";
  } catch (const Exception& exception) {
    // A cluster has no such locks; the administrator must take care there.
    if (isDatabaseError(exception, s_notSupported)) return;
    throw;
  }
  if (m_held) return;
  throw Failure(ExitCode::Unavailable, "preparing the database",
                "another 'tsl-address-map init' has been running for a minute", "try again later");
}

PreparationLock::~PreparationLock() {
  if (!m_held) return;
  try {
    selectTexts(m_connection, "select release_lock( 'tsl-address-map init' );", 1);
  } catch (const Exception&) {
    // The server releases the lock with the connection.
    m_held = false;
  }
}

Schema lookAtSchema(Database::Connection& connection) {
  Schema schema;
  schema.present = connection.dbSelectIfExists(s_database);
  if (!schema.present) return schema;
  schema.tables = Database::QueryTableNames(connection).names();
  if (!s_exists(connection, schema, s_mask)) {
    schema.missing.push_back(SchemaStep::CreateMask);
  } else {
    s_lookAtMask(connection, s_mask, schema);
  }
  if (!s_exists(connection, schema, s_alias)) {
    schema.missing.push_back(SchemaStep::CreateAlias);
  } else {
    s_lookAtAlias(connection, s_alias, schema);
  }
  schema.offered = missingOwnTables(connection, schema.tables);
  return schema;
}

Schema lookAtTable(Database::Connection& connection, const std::string& table, bool isMask) {
  Schema schema;
  schema.present = true;
  if (isMask) {
    s_lookAtMask(connection, table, schema);
  } else {
    s_lookAtAlias(connection, table, schema);
  }
  return schema;
}

void createDatabase(Database::Connection& connection) {
  runStatement(connection, std::string("create database ") + s_database + ";");
  connection.dbSelect(s_database);
  carryOut(connection, SchemaStep::CreateMask);
  carryOut(connection, SchemaStep::CreateAlias);
  for (const OwnStep& step : missingOwnTables(connection, {})) {
    runStatement(connection, step.statement);
  }
  RecordedChange change(connection);
  for (const std::string& table : {s_mask, s_alias}) change.note(creationOf(table));
  change.commit();
}

void carryOut(Database::Connection& connection, SchemaStep step) {
  switch (step) {
    case SchemaStep::CreateMask:
      return createMaskTable(connection, s_mask);
    case SchemaStep::AddPublicIndex:
      return runStatement(connection, "create unique index public on mask( public );");
    case SchemaStep::CreateAlias:
      return createAliasTable(connection, s_alias);
    case SchemaStep::AddAllUsers:
      return runStatement(connection, "ALTER TABLE alias ADD all_users TINYINT NOT NULL DEFAULT 0");
    case SchemaStep::WidenMembers:
      return runStatement(connection, "ALTER TABLE alias MODIFY members MEDIUMTEXT NOT NULL");
  }
}

std::string textOf(SchemaStep step, const std::string& table) {
  switch (step) {
    case SchemaStep::CreateMask:
    case SchemaStep::CreateAlias:
      return "create table " + table;
    case SchemaStep::AddPublicIndex:
      return "add the unique index public to table " + table;
    case SchemaStep::AddAllUsers:
      return "add the column all_users to table " + table;
    case SchemaStep::WidenMembers:
      return "make the column members of table " + table + " MEDIUMTEXT";
  }
  return "";
}

const std::string& tableOf(SchemaStep step) {
  const bool isMask = step == SchemaStep::CreateMask || step == SchemaStep::AddPublicIndex;
  return isMask ? s_mask : s_alias;
}

std::string textOf(SchemaStep step) {
  return textOf(step, tableOf(step));
}

std::string summaryOf(const Schema& schema) {
  if (!schema.present) return "absent";
  if (schema.isComplete()) return "complete";
  std::string text = schema.unfitting.empty() ? "incomplete" : "unfitting";
  const char* separator = ": ";
  for (const std::string& problem : schema.unfitting) {
    text += separator + problem;
    separator = "; ";
  }
  for (const SchemaStep step : schema.missing) {
    text += separator + ("to do: " + textOf(step));
    separator = "; ";
  }
  return text;
}

}  // namespace Tessel::Tool
