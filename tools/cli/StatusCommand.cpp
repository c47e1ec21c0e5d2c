// The command `status`: what the tool would work on, and in which state it is.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Exception.h"
#include "cli/Command.h"
#include "cmf/ApsGwServerCache.h"
#include "database/Connection.h"
#include "tables/Configuration.h"
#include "tables/Schema.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct TableCount {
  std::string table;
  std::uint64_t rows;
};

// What is known; the rest is empty.
struct Status {
  std::string server;
  std::string version;
  std::optional<Schema> schema;
  std::vector<TableCount> tables;
  std::optional<std::size_t> domains;
  bool hasConfiguration = true;
  std::vector<Failure> failures;
};

void s_askDatabase(Status& status) {
  try {
    Database::Connection connection("");
    status.server = connection.peerAddress().text();
    status.version = connection.serverVersion();
    status.schema = lookAtSchema(connection);
    for (const std::string& table : status.schema->tables) {
      if (!readTableName(table)) continue;
      status.tables.push_back({table, countRows(connection, table)});
    }
  } catch (const Exception& exception) {
    status.failures.push_back(failureOf(exception, "asking the database"));
  }
}

void s_askConfiguration(Status& status) {
  try {
    status.domains = withConfiguration(
        [] { return CMF::RefApsGwServerCache::instance(false)->domains().size(); });
  } catch (const Failure& failure) {
    // Installations without all-users aliases have no configuration; that is a state, no failure.
    status.hasConfiguration = failure.code() != ExitCode::Configuration;
    if (status.hasConfiguration) status.failures.push_back(failure);
  }
}

Json s_jsonOf(const Status& status) {
  Json tables = Json::array();
  for (const TableCount& count : status.tables) {
    tables.push_back(Json{{"table", printable(count.table)}, {"rows", count.rows}});
  }
  Json document;
  document["server"] = status.server.empty() ? Json() : Json(printable(status.server));
  document["version"] = status.version.empty() ? Json() : Json(printable(status.version));
  document["database"] = s_database;
  document["present"] = status.schema ? Json(status.schema->present) : Json();
  document["schema"] = status.schema ? Json(printable(summaryOf(*status.schema))) : Json();
  document["tables"] = tables;
  document["cmf"] = printable(configurationDirectory());
  document["domains"] = status.domains ? Json(*status.domains) : Json();
  return document;
}

void s_writeLines(const Status& status, Session& session) {
  Output& output = session.output();
  const std::string unknown = "unknown";
  output.line("server: " + (status.server.empty() ? unknown : printable(status.server)));
  output.line("version: " + (status.version.empty() ? unknown : printable(status.version)));
  output.line("database: " + std::string(s_database));
  output.line("schema: " + (status.schema ? printable(summaryOf(*status.schema)) : unknown));
  for (const TableCount& count : status.tables) {
    output.line("table: " + printable(count.table) + ", rows: " + std::to_string(count.rows));
  }
  output.line("configuration: " + printable(configurationDirectory()));
  output.line("domains: " + (status.domains            ? std::to_string(*status.domains)
                             : status.hasConfiguration ? unknown
                                                       : "none, no configuration there"));
}

ExitCode s_status(Session& session) {
  Status status;
  s_askDatabase(status);
  s_askConfiguration(status);
  if (session.isJson()) {
    session.output().document(s_jsonOf(status));
  } else {
    s_writeLines(status, session);
  }
  session.output().flush();
  ExitCode code = ExitCode::Done;
  for (const Failure& failure : status.failures) {
    report(failure);
    if (code == ExitCode::Done) code = failure.code();
  }
  return code;
}

}  // namespace

void addStatusCommand(Command& top) {
  top.command("status", "Show the server, the database, its tables and the configuration",
              "  tsl-address-map status\n"
              "  tsl-address-map --local status --json\n"
              "Shows what is known even if the rest is not; the exit status is 75 (or 78)"
              " then.\n"
              "With --json {\"server\", \"version\", \"database\", \"present\", \"schema\","
              " \"tables\", \"cmf\", \"domains\"},\nnull where it is not known.\n",
              Preparation::Server, s_status);
}

}  // namespace Tessel::Tool
