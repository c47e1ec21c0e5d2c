// The commands on whole tables: create, drop, list.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/Intent.h"
#include "database/Connection.h"
#include "database/QueryTableNames.h"
#include "map/AddressMapMySQL.h"
#include "tables/AliasGraph.h"
#include "tables/Schema.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Confirm.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct TableArguments {
  std::string name;
  std::string kind;
  bool yes = false;
  bool dryRun = false;
};

void s_requireName(const std::string& name) {
  if (isTableName(name)) return;
  throw Failure(ExitCode::Usage, "table '" + name + "'",
                "a table name has 1 to 58 letters, digits and underscores",
                "it is what --table takes: 'sales' names the tables alias_sales and mask_sales");
}

// The kinds of table that --kind asks for.
std::vector<TableKind> s_kinds(const std::string& kind) {
  if (kind.empty()) return {TableKind::Alias, TableKind::Mask};
  for (const TableKind known : {TableKind::Alias, TableKind::Mask}) {
    if (kind == textOf(known)) return {known};
  }
  throw Failure(ExitCode::Usage, "--kind " + kind, "there is no such kind of table",
                "use alias or mask, or leave it out for both");
}

void s_create(Database::Connection& connection, TableKind kind, const std::string& table) {
  if (kind == TableKind::Mask) {
    createMaskTable(connection, table);
  } else {
    createAliasTable(connection, table);
  }
}

ExitCode s_runCreate(Session& session, const TableArguments& arguments) {
  s_requireName(arguments.name);
  const std::vector<TableKind> kinds = s_kinds(arguments.kind);
  session.tellTarget();
  Database::Connection connection{std::string(s_database)};
  const PreparationLock lock(connection);
  const auto present = Database::QueryTableNames(connection).names();
  Json created = Json::array();
  for (const TableKind kind : kinds) {
    const std::string table = sqlTableName(kind, arguments.name);
    if (present.count(table) != 0) {
      say("table " + table + " exists already");
      continue;
    }
    if (!arguments.dryRun) {
      Intent intent({creationOf(table)}, Intent::Without::Fail);
      s_create(connection, kind, table);
      intent.done();
    }
    created.push_back(table);
    if (arguments.dryRun && !session.isJson()) session.output().line("+ " + table);
    if (!arguments.dryRun) session.detail("created table " + table);
  }
  answerChange(session, Json{{"name", arguments.name}, {"created", created}}, "", arguments.dryRun);
  return ExitCode::Done;
}

// A table to drop.
struct Doomed {
  std::string table;
  std::uint64_t rows;

  bool operator==(const Doomed&) const = default;
};

// The existing tables. Throws Failure when one has columns that no table of this library has.
std::vector<Doomed> s_find(Database::Connection& connection, const TableArguments& arguments) {
  const auto present = Database::QueryTableNames(connection).names();
  std::vector<Doomed> doomed;
  for (const TableKind kind : s_kinds(arguments.kind)) {
    const std::string table = sqlTableName(kind, arguments.name);
    if (present.count(table) == 0) continue;
    const Schema schema = lookAtTable(connection, table, kind == TableKind::Mask);
    if (!schema.unfitting.empty()) {
      throw Failure(ExitCode::BadData, "table " + table, schema.unfitting.front(),
                    "nothing was dropped: it is not a table of this library; drop it with an SQL"
                    " client if nobody needs it");
    }
    doomed.push_back({table, countRows(connection, table)});
  }
  return doomed;
}

// Shows what would be dropped, and asks. Throws Failure when there is nobody to ask.
bool s_mayDrop(const std::vector<Doomed>& doomed) {
  std::string text;
  for (const Doomed& table : doomed) {
    text += (text.empty() ? "" : " and ") + table.table + " with " + std::to_string(table.rows) +
            " rows";
  }
  if (canAsk()) return confirm("Drop " + text + "?");
  throw Failure(ExitCode::Usage, "table drop", "it would drop " + text,
                "nothing was dropped; give --yes to drop them");
}

ExitCode s_runDrop(Session& session, const TableArguments& arguments) {
  s_requireName(arguments.name);
  session.tellTarget();
  Database::Connection connection{std::string(s_database)};
  const std::vector<Doomed> doomed = s_find(connection, arguments);
  if (doomed.empty()) say("no table " + arguments.name);
  const bool asks = !doomed.empty() && !arguments.yes && !arguments.dryRun;
  if (asks && !s_mayDrop(doomed)) {
    say("nothing was dropped");
    return ExitCode::Done;
  }
  if (asks && s_find(connection, arguments) != doomed) {
    throw Failure(ExitCode::Unavailable, "table drop",
                  "somebody has added or removed rows since the question",
                  "nothing was dropped; try again");
  }
  Json dropped = Json::array();
  for (const Doomed& table : doomed) {
    if (!arguments.dryRun) {
      Intent intent({dropOf(table.table, table.rows)}, Intent::Without::Fail);
      runStatement(connection, "drop table " + quotedName(table.table) + ";");
      intent.done();
    }
    dropped.push_back(Json{{"table", table.table}, {"rows", table.rows}});
    if (session.isJson()) continue;
    session.output().line("- " + table.table + " (" + std::to_string(table.rows) + " rows)");
  }
  answerChange(session, Json{{"name", arguments.name}, {"dropped", dropped}}, "", arguments.dryRun);
  return doomed.empty() ? ExitCode::NotFound : ExitCode::Done;
}

ExitCode s_runList(Session& session) {
  session.tellTarget();
  Database::Connection connection{std::string(s_database)};
  const auto tables = Database::QueryTableNames(connection).names();
  ItemList list(session.output());
  for (const std::string& table : tables) {
    const auto ours = readTableName(table);
    // No program reads a table whose name --table does not take.
    if (!ours || (!ours->name.empty() && !isTableName(ours->name))) continue;
    const std::uint64_t rows = countRows(connection, table);
    const std::string name = ours->name.empty() ? "-" : ours->name;
    list.add(name + "\t" + textOf(ours->kind) + "\t" + std::to_string(rows), [&] {
      return Json{{"name", ours->name.empty() ? Json() : Json(ours->name)},
                  {"kind", textOf(ours->kind)},
                  {"table", table},
                  {"rows", rows}};
    });
  }
  list.end();
  return ExitCode::Done;
}

void s_addCommon(Command& command, TableArguments& arguments) {
  command.argument("NAME", arguments.name, "The name, as --table takes it");
  command.option("--kind", arguments.kind, "KIND", "alias or mask; both without it");
  addDryRun(command, arguments.dryRun);
}

}  // namespace

void addTableCommands(Command& top) {
  const auto arguments = std::make_shared<TableArguments>();
  Command group = top.group("table", "Create, drop and list whole tables");

  Command create =
      group.command("create", "Create the tables of a name; existing ones stay unchanged",
                    "  tsl-address-map table create sales\n"
                    "  tsl-address-map --table sales alias list\n"
                    "Prints nothing; with --json {\"name\", \"created\"}.\n",
                    Preparation::Database, withArguments(s_runCreate, arguments));
  s_addCommon(create, *arguments);

  Command drop = group.command(
      "drop", "Drop the tables of a name with all their rows; exit 1 when there are none",
      "  tsl-address-map table drop sales --dry-run\n"
      "  tsl-address-map table drop sales --kind mask --yes\n"
      "Asks on a terminal, and needs --yes otherwise (64). A table with columns that are not this"
      " library's is\nrefused (65); the base tables have no name, and cannot be dropped. Prints the"
      " tables with their rows; with --json\n{\"name\", \"dropped\"}, a list of {\"table\","
      " \"rows\"}.\n",
      Preparation::Database, withArguments(s_runDrop, arguments));
  s_addCommon(drop, *arguments);
  drop.flag("--yes", arguments->yes, "Do not ask");

  group.command(
      "list", "List the tables with their kinds and rows",
      "  tsl-address-map table list\n"
      "One per line: NAME<TAB>KIND<TAB>ROWS, the name of base tables being '-'; with --json"
      " a list of\n{\"name\", \"kind\", \"table\", \"rows\"}, their name being null.\n",
      Preparation::Database, s_runList);
}

}  // namespace Tessel::Tool
