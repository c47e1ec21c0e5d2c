// The store over MariaDB/MySQL: schema, preparation of the database, and the making of tables.
#include "map/AddressMapMySQL.h"

#include <algorithm>
#include <set>

#include "alias/AddressAliasDbMySQL.h"
#include "base/Exception.h"
#include "database/Query.h"
#include "database/QueryDescribeTable.h"
#include "database/QueryTableNames.h"
#include "mask/AddressMaskMySQL.h"

namespace Tessel {

const std::string s_mask = "mask";
const std::string s_alias = "alias";

namespace {

const std::string s_database = "ts_address_map";

void s_execute(Database::Connection& connection, const std::string& statement) {
  Database::Query query(connection, nullptr, true);
  query << statement;
  query.execute();
}

void s_createDatabase(Database::Connection& connection, const std::string& name) {
  try {
    s_execute(connection, "Create database " + name + ";");
    connection.dbSelect(name);
    createMaskTable(connection, s_mask);
    createAliasTable(connection, s_alias);
  } catch (const Exception& exception) {
    throw Exception("AddressMapCreation", 4, "AddressMapMySQL", 79).cause(exception);
  }
}

bool s_hasAllUsersColumn(Database::Connection& connection) {
  const Database::QueryDescribeTable description(connection, s_alias);
  const auto& fields = description.fields();
  return std::any_of(fields.begin(), fields.end(),
                     [](const auto& field) { return field.name == "all_users"; });
}

void s_upgradeAliasTable(Database::Connection& connection) {
  s_execute(connection, "ALTER TABLE " + s_alias + " ADD all_users TINYINT NOT NULL DEFAULT 0");
  s_execute(connection, "ALTER TABLE " + s_alias + " MODIFY members MEDIUMTEXT NOT NULL");
}

void s_clearAddressMapDb(Database::Connection& connection) {
  try {
    s_execute(connection, "DELETE FROM " + s_mask + ";");
    s_execute(connection, "DELETE FROM " + s_alias + ";");
  } catch (const Exception& exception) {
    throw Exception("s_clearAddressMapDb", 4, "AddressMapMySQL", 115).cause(exception);
  }
}

// Brings the base tables of the selected database up to date.
void s_prepareBaseTables(Database::Connection& connection, bool clear) {
  const std::set<std::string> tables = Database::QueryTableNames(connection).names();
  if (tables.count(s_mask) == 0) createMaskTable(connection, s_mask);
  if (tables.count(s_alias) == 0) {
    createAliasTable(connection, s_alias);
  } else if (!s_hasAllUsersColumn(connection)) {
    s_upgradeAliasTable(connection);
  }
  if (clear) s_clearAddressMapDb(connection);
}

}  // namespace

void createMaskTable(Database::Connection& connection, const std::string& table) {
  try {
    Database::Query query(connection, nullptr, true);
    query.seekp(0);
    // Deliberate: no "if not exists". Callers create a mask table only when it is missing and want
    // the error otherwise. Pinned by
    // AddressMapMySQLOnServer.CreatingAMaskTableTwiceFails.
    query << "create table " << table << "(\n"
          << " private varchar( 255 ) primary key,\n"
          << " public varchar( 255 ) not null )\n"
          << " engine=InnoDB;" << '\0';
    query.execute();
    query.seekp(0);
    query << "create unique index private on " << table << "( private );" << '\0';
    query.execute();
    query.seekp(0);
    query << "create unique index public on " << table << "( public );" << '\0';
    query.execute();
  } catch (const Exception& exception) {
    throw Exception("Address Mask Creation", 4, "AddressMapMySQL", 33).cause(exception);
  }
}

void createAliasTable(Database::Connection& connection, const std::string& table) {
  try {
    Database::Query query(connection, nullptr, true);
    query.seekp(0);
    query << "create table if not exists " << table << "(\n"
          << " name varchar( 255 ) unique primary key not null,\n"
          << " members MEDIUMTEXT not null, \n"
          << " all_users tinyint not null default 0)\n"
          << " engine=InnoDB;" << '\0';
    query.execute();
  } catch (const Exception& exception) {
    throw Exception("Address Alias Creation", 4, "AddressMapMySQL", 56).cause(exception);
  }
}

AddressMapDbMySQL::AddressMapDbMySQL(bool preload)
    : m_databaseName(s_database), m_connection(m_databaseName), m_preload(preload) {}

AddressMapDbMySQL::~AddressMapDbMySQL() = default;

AddressMaskDbImpl* AddressMapDbMySQL::createMaskDbImpl(const std::string& name) {
  return new AddressMaskDbMySQL(*this, m_preload, name);
}

AddressAliasDbImpl* AddressMapDbMySQL::createAliasDbImpl(const std::string& name) {
  return new AddressAliasDbMySQL(*this, m_preload, name);
}

void AddressMapDbMySQL::initialize(bool clear) {
  Database::Connection connection(Database::Connection::defaultAddress(), "mysql");
  try {
    if (!connection.dbSelectIfExists(s_database)) {
      s_createDatabase(connection, s_database);
      return;
    }
    s_prepareBaseTables(connection, clear);
  } catch (const Exception&) {
    // Deliberate: whatever failed, the database is replaced by an empty one and the failure is not
    // reported; mail goes on without it. Pinned by
    // AddressMapMySQLOnServer.AFailedUpgradeLeavesAFreshDatabase.
    connection.dbDelete(s_database);
    if (!connection.dbSelectIfExists(s_database)) s_createDatabase(connection, s_database);
  }
}

}  // namespace Tessel
