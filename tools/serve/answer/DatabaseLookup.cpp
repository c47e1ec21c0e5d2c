// The lookup of the service on the tables and the configuration as they are now.
#include "serve/answer/DatabaseLookup.h"

#include <exception>
#include <memory>

#include "base/Exception.h"
#include "database/Connection.h"
#include "failure/Failure.h"
#include "serve/image/ConfigurationImage.h"
#include "tables/TableFormat.h"
#include "tables/TextRows.h"

namespace Tessel::Serve {

namespace {

std::string s_select(const Tool::TableFormat& format, const std::string& table) {
  return std::string("select ") + format.key + "," + format.value + " from " +
         Tool::quotedName(table) + ";";
}

void s_publish(Table& table, Database::Connection& connection, const std::string& statement) {
  const auto rows = [&](const TakeRow& take) { Tool::selectPairs(connection, statement, take); };
  table.publish(std::make_shared<const TableImage>(table.kind(), rows));
  table.confirm(Clock::now());
}

// The rules, if the database has any.
void s_publishRules(Tables& tables, Database::Connection& connection) try {
  Table rules(TableKind::Rules, "");
  s_publish(rules, connection, s_selectRules);
  const TablePointer table = tables.add(rules.sqlName());
  table->publish(rules.image());
  table->confirm(Clock::now());
} catch (const Exception& exception) {
  // The server does not list such tables to the service.
  const bool isAbsent = Tool::isDatabaseError(exception, Tool::s_noSuchTable) ||
                        Tool::isDatabaseError(exception, Tool::s_commandDenied);
  if (!isAbsent) throw;
}

}  // namespace

DatabaseLookup::DatabaseLookup(const Settings& settings, const std::string& name)
    : m_tables(settings),
      m_lookup(settings, m_tables, m_metrics, m_log),
      m_context(name.empty() ? "alias" : "alias." + name) {
  Database::Connection connection{std::string(Tool::s_database)};
  for (const TableKind kind : {TableKind::Alias, TableKind::Mask}) {
    const Tool::TableFormat& format =
        kind == TableKind::Alias ? Tool::TableFormat::alias() : Tool::TableFormat::mask();
    const TablePointer table = m_tables.add(sqlNameOf(kind, name));
    s_publish(*table, connection, s_select(format, table->sqlName()));
  }
  s_publishRules(m_tables, connection);
  try {
    m_tables.configuration().publish(
        std::make_shared<const ConfigurationImage>(copyConfiguration()), Clock::now());
  } catch (const Exception& exception) {
    m_fault = Tool::reasonOf(exception);
  } catch (const std::exception& exception) {
    m_fault = exception.what();
  }
}

std::string DatabaseLookup::action(const std::string& recipient, const std::string& login) {
  return *m_lookup.action({"smtpd_access_policy", "RCPT", recipient, login, "", m_context});
}

std::string DatabaseLookup::ask(const std::string& map, const std::string& key) {
  return *m_lookup.reply(map + " " + key);
}

}  // namespace Tessel::Serve
