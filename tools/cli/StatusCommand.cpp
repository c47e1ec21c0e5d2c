// The command `status`: what the tool would work on, and in which state it is.
#include <chrono>
#include <cmath>
#include <optional>
#include <ratio>
#include <string>
#include <vector>

#include "base/Exception.h"
#include "cli/Command.h"
#include "cmf/ApsGwServerCache.h"
#include "database/Connection.h"
#include "database/Encryption.h"
#include "database/QueryTableNames.h"
#include "tables/Configuration.h"
#include "tables/Schema.h"
#include "tables/ServerRole.h"
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

// What is known of one of the hosts that the options name.
Json s_askHost(const Database::Connection::Host& host) {
  Json known{{"host", printable(host.name)},
             {"used", false},
             {"reachable", false},
             {"why", nullptr},
             {"server", nullptr},
             {"version", nullptr},
             {"role", nullptr},
             {"readOnly", nullptr},
             {"lag", nullptr},
             {"milliseconds", nullptr}};
  try {
    Database::Connection connection(host, "");
    known["reachable"] = true;
    known["server"] = printable(connection.peerAddress().text());
    known["version"] = printable(connection.serverVersion());
    const auto start = std::chrono::steady_clock::now();
    const ServerRole role = roleOf(connection);
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    known["milliseconds"] = std::round(time.count() * 100) / 100;
    known["role"] = printable(roleText(role));
    known["readOnly"] = role.isReadOnly;
    if (role.replica && role.replica->lag) known["lag"] = role.replica->lag->count();
  } catch (const Exception& exception) {
    known["why"] = printable(reasonOf(exception));
  }
  return known;
}

// Fills in what is known of each host; `used` is the one that the connections of this program use.
void s_askHosts(Json& status, std::vector<Failure>& failures, const std::string& used) {
  s_try(failures, "reading the options", [&] {
    for (const Database::Connection::Host& host : Database::Connection::hosts()) {
      status["hosts"].push_back(s_askHost(host));
      Json& known = status["hosts"].back();
      known["used"] = known.at("reachable") == true && host.name == used;
    }
  });
}

Json s_describe(const std::optional<Database::Encryption>& encryption) {
  const Database::Encryption none;
  const Database::Encryption& known = encryption ? *encryption : none;
  const auto text = [](const std::string& value) {
    return value.empty() ? Json() : Json(printable(value));
  };
  return {{"version", text(known.version)},
          {"cipher", text(known.cipher)},
          {"subject", text(known.subject)},
          {"checked", known.checkText()},
          {"verified", known.isVerified()}};
}

// Fills in what is known of the database, and in words how it is reached.
void s_askDatabase(Json& status, std::string& encryption, std::vector<Failure>& failures) {
  std::string used;
  s_try(failures, "asking the database", [&] {
    Database::Connection connection("");
    used = connection.host().name;
    status["server"] = printable(connection.peerAddress().text());
    status["version"] = printable(connection.serverVersion());
    const auto found = connection.encryption();
    status["encryption"] = s_describe(found);
    encryption = found ? printable(found->text()) : "none";
    const bool isPresent = connection.dbSelectIfExists(s_database);
    status["present"] = isPresent;
    if (!isPresent) status["schema"] = summaryOf(Schema());
    if (isPresent) s_askTables(connection, status, failures);
  });
  s_askHosts(status, failures, used);
}

std::string s_text(const Json& value) {
  if (value.is_null()) return "unknown";
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string s_hostText(const Json& host) {
  const std::string& name = host.at("host").get_ref<const std::string&>();
  std::string text = name.empty() ? s_text(host.at("server")) : name;
  if (host.at("reachable") == true) {
    text += host.at("used") == true ? ", used" : ", not used";
    text += ", " + s_text(host.at("version"));
    if (!host.at("role").is_null()) {
      text += ", " + s_text(host.at("role")) + ", " + s_text(host.at("milliseconds")) + " ms";
    }
  }
  return host.at("why").is_null() ? text : text + ": " + s_text(host.at("why"));
}

void s_writeLines(const Json& status, const std::string& encryption, bool hasConfiguration,
                  Output& output) {
  const auto line = [&](const char* key) { output.line(key + (": " + s_text(status.at(key)))); };
  line("server");
  line("version");
  output.line("encryption: " + encryption);
  for (const Json& host : status.at("hosts")) output.line("host: " + s_hostText(host));
  line("database");
  line("schema");
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
              {"encryption", nullptr},
              {"hosts", Json::array()},
              {"database", s_database},
              {"present", nullptr},
              {"schema", nullptr},
              {"tables", Json::array()},
              {"cmf", printable(configurationDirectory())},
              {"domains", nullptr}};
  std::vector<Failure> failures;
  std::string encryption = "unknown";
  s_askDatabase(status, encryption, failures);
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
    s_writeLines(status, encryption, hasConfiguration, session.output());
  }
  session.output().flush();
  for (const Failure& failure : failures) report(failure);
  return failures.empty() ? ExitCode::Done : failures.front().code();
}

}  // namespace

void addStatusCommand(Command& top) {
  top.command(
      "status", "Show the server, the database, its tables and the configuration",
      "  tsl-address-map status\n"
      "  tsl-address-map --local status --json\n"
      "Shows what is known even if the rest is not; the exit status is 75 (or 78)"
      " then.\n"
      "A host is one of those that the option file names: whether it can be reached and is"
      " used, its\nversion, whether it is a node of a cluster, a replica and how far behind,"
      " or read-only, and how\nlong the answer took. To see replication, the SQL user needs"
      " the right REPLICA MONITOR.\n"
      "With --json {\"server\", \"version\", \"encryption\", \"hosts\", \"database\", \"present\","
      " \"schema\",\n\"tables\", \"cmf\", \"domains\"}, null where it is not known; each of"
      " \"hosts\" {\"host\", \"used\", \"reachable\", \"why\",\n\"server\", \"version\","
      " \"role\", \"readOnly\", \"lag\", \"milliseconds\"}.\n",
      Preparation::Server, s_status);
}

}  // namespace Tessel::Tool
