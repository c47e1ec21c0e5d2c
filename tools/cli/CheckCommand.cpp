// The command `check`: what is wrong with the tables.
#include <charconv>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "check/AliasCheck.h"
#include "check/DomainCheck.h"
#include "check/Findings.h"
#include "check/HistoryCheck.h"
#include "check/KnownFindings.h"
#include "check/MaskCheck.h"
#include "cli/Command.h"
#include "database/QueryDescribeTable.h"
#include "tables/AliasTable.h"
#include "tables/MailUsers.h"
#include "tables/MaskTable.h"
#include "tables/OwnTables.h"
#include "tables/Schema.h"
#include "tables/SpellingSearch.h"
#include "tables/TableNames.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

namespace {

enum class Kind { Alias, Mask, Misnamed, Foreign };

// What a table is by its name.
Kind s_kindOf(std::string_view table) {
  for (const std::string_view base : {"alias", "mask"}) {
    if (table.substr(0, base.size()) != base) continue;
    if (table.size() == base.size() || table[base.size()] == '_') {
      return base == "alias" ? Kind::Alias : Kind::Mask;
    }
    return Kind::Misnamed;
  }
  return Kind::Foreign;
}

// Size in bytes of a column of type `type`, as the server writes it.
std::size_t s_sizeOf(std::string_view type) {
  if (type == "tinytext") return 0xff;
  if (type == "text") return 0xffff;
  if (type == "longtext") return 0xffffffff;
  constexpr std::string_view varchar = "varchar(";
  if (!type.starts_with(varchar)) return 0xffffff;
  std::size_t characters = 0;
  static_cast<void>(
      std::from_chars(type.data() + varchar.size(), type.data() + type.size(), characters));
  return characters;  // A character has one byte at least.
}

std::size_t s_widest(Database::Connection& connection, const std::string& table) {
  const Database::QueryDescribeTable description(connection, table);
  for (const Database::Field& field : description.fields()) {
    if (field.name == "members") return s_sizeOf(field.type);
  }
  return s_sizeOf("");
}

// The columns of addresses that are looked up.
const std::vector<const char*> s_aliasColumns{"name"};
const std::vector<const char*> s_maskColumns{"private", "public"};

struct CheckArguments {
  std::optional<std::string> known;
  bool asKnown = false;
  bool sinceHistory = false;
};

class Check {
 public:
  // `known` may be null, and must outlive the object.
  Check(Session& session, KnownFindings* known, FindingStyle style)
      : m_session(session),
        m_connection(""),
        m_known(known),
        m_findings(session.output(), known, style) {}

  // With `sinceHistory`, also compares the rows with the history.
  ExitCode run(bool sinceHistory) {
    const Schema schema = lookAtSchema(m_connection);
    if (!schema.present) {
      throw Failure(ExitCode::Configuration, "checking the tables",
                    std::string("there is no database ") + s_database,
                    "create it with 'tsl-address-map init'");
    }
    const std::string name = m_session.tableName();
    const std::set<std::string> wanted{aliasTableName(name), maskTableName(name)};
    if (name.empty()) checkBases(schema);
    m_progress.endForPager();
    for (const std::string& table : schema.tables) {
      const auto known = readTableName(table);
      const bool isAlias = known && known->kind == TableKind::Alias;
      // Other names are safe for no statement.
      if (isAlias && (known->name.empty() || isTableName(known->name))) {
        m_aliasTables.push_back(table);
      }
    }
    bool any = false;
    for (const std::string& table : schema.tables) {
      if (!name.empty() && wanted.count(table) == 0) continue;
      any = true;
      checkTable(table);
    }
    if (!any && !name.empty()) {
      throw Failure(ExitCode::Configuration, "checking the tables of '" + name + "'",
                    "there is no table " + aliasTableName(name) + " or " + maskTableName(name),
                    "create them with 'tsl-address-map table create " + name +
                        "', or correct --table; 'tsl-address-map table list' shows those there"
                        " are");
    }
    if (name.empty()) checkDomains(m_users, m_findings);
    if (m_users.failure()) addConfiguration();
    if (sinceHistory) {
      if (name.empty() && schema.tables.contains(s_rules)) m_readable.emplace_back(s_rules);
      m_progress.begin("comparing with the history", "rows");
      checkHistory(m_connection, m_readable, m_findings);
    }
    m_progress.end();
    m_findings.end();
    // Without the configuration, some findings are not made.
    if (m_known != nullptr && !m_users.failure()) {
      m_known->reportUnmet(
          [&](const std::string& table) { return name.empty() || wanted.contains(table); });
    }
    return m_findings.code();
  }

 private:
  void checkBases(const Schema& schema) {
    for (const std::string base : {"alias", "mask"}) {
      if (schema.tables.count(base) != 0) continue;
      m_findings.add({Severity::Error,
                      "missing-base",
                      base,
                      "",
                      "the table is not there: no program can open its tables, those with other"
                      " names neither",
                      "tsl-address-map init",
                      {}});
    }
  }

  void checkTable(const std::string& table) {
    const Kind kind = s_kindOf(table);
    if (kind == Kind::Misnamed) {
      m_findings.add({Severity::Notice,
                      "misnamed-table",
                      table,
                      "",
                      "begins like one of this system's tables, but has no '_' after that: no"
                      " program reads it",
                      "",
                      {}});
    }
    if (kind != Kind::Alias && kind != Kind::Mask) return;
    m_progress.begin("checking " + table, "rows");
    if (!checkSchema(table, kind == Kind::Mask)) return;
    m_readable.push_back(table);
    const std::uint64_t rows =
        kind == Kind::Mask ? checkMaskTable(m_connection, table, m_aliasTables, m_users, m_findings,
                                            m_progress.counter())
                           : checkAliasTable(m_connection, table, s_widest(m_connection, table),
                                             m_users, m_findings, m_progress.counter());
    m_session.detail("table " + table + ": " + std::to_string(rows) + " rows");
  }

  // False when the rows cannot be read.
  bool checkSchema(const std::string& table, bool isMask) {
    const Schema schema = lookAtTable(m_connection, table, isMask);
    const bool isBase = table == (isMask ? "mask" : "alias");
    bool isReadable = true;
    for (const std::string& problem : schema.unfitting) {
      isReadable = isReadable && problem.find("has no column") == std::string::npos;
      m_findings.add({Severity::Error, "schema", table, "", problem, "", {}});
    }
    for (const SchemaStep step : schema.missing) {
      m_findings.add({Severity::Warning,
                      "schema",
                      table,
                      "",
                      "to do: " + textOf(step, table),
                      isBase ? "tsl-address-map init" : "",
                      {}});
    }
    if (isReadable) checkCollation(table, isMask);
    return isReadable;
  }

  void checkCollation(const std::string& table, bool isMask) {
    for (const char* const column : isMask ? s_maskColumns : s_aliasColumns) {
      if (!isCaseSensitive(m_connection, quotedName(table), column)) continue;
      m_findings.add({Severity::Warning,
                      "schema",
                      table,
                      "",
                      std::string("the collation of column ") + column +
                          " is case-sensitive: the library does not find a row in another letter"
                          " case, and the table can have one address twice; use one that ends in"
                          " _ci",
                      "",
                      {}});
    }
  }

  void addConfiguration() {
    m_findings.add({Severity::Notice,
                    "no-configuration",
                    "",
                    "",
                    "members were not compared with the mail users: " +
                        m_users.failure()->subject() + ": " + m_users.failure()->why(),
                    "tsl-address-map domain list",
                    {}});
  }

  Session& m_session;
  Database::Connection m_connection;
  MailUsers m_users;
  std::vector<std::string> m_aliasTables;
  std::vector<std::string> m_readable;  // The tables that were checked.
  KnownFindings* m_known;
  Findings m_findings;
  Progress m_progress;
};

ExitCode s_check(Session& session, const CheckArguments& arguments) {
  if (arguments.asKnown && session.isJson()) {
    throw Failure(ExitCode::Usage, "--as-known", "its lines are no JSON", "leave --json out");
  }
  std::optional<KnownFindings> known;
  if (arguments.known) known.emplace(*arguments.known);
  return Check(session, known ? &*known : nullptr,
               arguments.asKnown ? FindingStyle::Known : FindingStyle::Whole)
      .run(arguments.sinceHistory);
}

}  // namespace

void addCheckCommand(Command& top) {
  const auto arguments = std::make_shared<CheckArguments>();
  Command check = top.command(
      "check", "Find what is wrong with the tables; exit 65 if anything is",
      "  tsl-address-map check\n"
      "  tsl-address-map check --json | jq '.[] | select(.severity == \"error\")'\n"
      "  tsl-address-map check --as-known >known.txt\n"
      "  tsl-address-map check --known known.txt\n"
      "All tables are checked, with --table those of that name only. One finding per line:\n"
      "SEVERITY<TAB>FINDING<TAB>TABLE<TAB>ADDRESS<TAB>WHAT<TAB>COMMAND, the command being what to"
      " run next.\nExit 65 when there is an error or a warning; notices alone do not count.\n"
      "With --json a list of {\"severity\", \"finding\", \"table\", \"address\", \"what\","
      " \"command\", \"addresses\"}, with --known also \"known\" and \"note\".\n",
      Preparation::Database, withArguments(s_check, arguments));
  check.option("--known", arguments->known, "FILE",
               "Do not print findings of the file, which do not count either; its lines are"
               " FINDING TABLE ADDRESS # NOTE");
  check.flag("--since-history", arguments->sinceHistory,
             "Also find rows that are not as the history has them: changes by other programs");
  check.flag("--as-known", arguments->asKnown,
             "Print findings as lines for such a file; add a note to each");
}

}  // namespace Tessel::Tool
