// The command `status`: what the tool would work on, and in which state it is.
#include <string>
#include <vector>

#include "base/Exception.h"
#include "cli/Command.h"
#include "cmf/ApsGwServerCache.h"
#include "database/Connection.h"
#include "database/QueryTableNames.h"
#include "tables/Configuration.h"
#include "tables/Schema.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Does one step; its failure does not keep the next one from being done.
template <class Step>
void s_try(std::vector<Failure>& failures, const std::string& subject, Step step) {
  try {
    step();
  } catch (const Exception& exception) {
    failures.push_back(failureOf(exception, subject));
  }
}

// Fills in what is known of the tables, which a user with few rights does not see all of.
void s_askTables(Database::Connection& connection, Json& status, std::vector<Failure>& failures) {
  s_try(failures, "looking at the schema",
        [&] { status["schema"] = printable(summaryOf(lookAtSchema(connection))); });
  const auto tables = Database::QueryTableNames(connection).names();
  for (const std::string& table : tables) {
    if (!readTableName(table)) continue;
    Json rows;
    s_try(failures, "counting the rows of table " + table,
          [&] { rows = countRows(connection, table); });
    status["tables"].push_back(Json{{"table", printable(table)}, {"rows", rows}});
  }
}

// Fills in what is known of the database.
void s_askDatabase(Json& status, std::vector<Failure>& failures) {
  s_try(failures, "asking the database", [&] {
    Database::Connection connection("");
    status["server"] = printable(connection.peerAddress().text());
    status["version"] = printable(connection.serverVersion());
    const bool isPresent = connection.dbSelectIfExists(s_database);
    status["present"] = isPresent;
    if (!isPresent) status["schema"] = summaryOf(Schema());
    if (isPresent) s_askTables(connection, status, failures);
  });
}

std::string s_text(const Json& value) {
  if (value.is_null()) return "unknown";
  return value.is_string() ? value.get<std::string>() : value.dump();
}

void s_writeLines(const Json& status, bool hasConfiguration, Output& output) {
  for (const char* key : {"server", "version", "database", "schema"}) {
    output.line(key + (": " + s_text(status.at(key))));
  }
  for (const Json& table : status.at("tables")) {
    output.line("table: " + s_text(table.at("table")) + ", rows: " + s_text(table.at("rows")));
  }
  output.line("configuration: " + s_text(status.at("cmf")));
  output.line("domains: " +
              (hasConfiguration ? s_text(status.at("domains")) : "none, no configuration there"));
}

ExitCode s_status(Session& session) {
  Json status{{"server", nullptr},
              {"version", nullptr},
              {"database", s_database},
              {"present", nullptr},
              {"schema", nullptr},
              {"tables", Json::array()},
              {"cmf", printable(configurationDirectory())},
              {"domains", nullptr}};
  std::vector<Failure> failures;
  s_askDatabase(status, failures);
  bool hasConfiguration = true;
  try {
    status["domains"] = withConfiguration(
        [] { return CMF::RefApsGwServerCache::instance(false)->domains().size(); });
  } catch (const NoConfiguration&) {
    // Installations without all-users aliases have no configuration; that is a state, no failure.
    hasConfiguration = false;
  } catch (const Failure& failure) {
    failures.push_back(failure);
  }
  if (session.isJson()) {
    session.output().document(status);
  } else {
    s_writeLines(status, hasConfiguration, session.output());
  }
  session.output().flush();
  for (const Failure& failure : failures) report(failure);
  return failures.empty() ? ExitCode::Done : failures.front().code();
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
