// The commands on one address, or all of a domain, in all tables: rename, leave, move-domain.
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/AliasEdit.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "database/Connection.h"
#include "database/QueryTableNames.h"
#include "tables/AddressKey.h"
#include "tables/AddressMove.h"
#include "tables/AliasChange.h"
#include "tables/AliasGraph.h"
#include "tables/History.h"
#include "tables/Retry.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct MoveArguments {
  std::string from;
  std::string to;
  bool yes = false;
  bool dryRun = false;
};

// What a move has done, or would do.
struct Moved {
  std::vector<std::string> lines;
  std::vector<std::string> broken;
  std::set<std::string> emptied;
};

// The tables that the commands work on: all, or those that --table names.
std::vector<std::string> s_tables(const Session& session) {
  Database::Connection connection{std::string(s_database)};
  std::vector<std::string> tables;
  const Database::QueryTableNames query(connection);
  for (const std::string& table : query.names()) {
    const auto name = readTableName(table);
    if (!name || !(name->name.empty() || isTableName(name->name))) continue;
    if (session.tableName().empty() || session.tableName() == name->name) tables.push_back(table);
  }
  return tables;
}

Moved s_result(const AddressMove& move) {
  Moved moved{{}, move.broken(), move.emptied()};
  for (const RowChange& change : move.changes()) {
    moved.lines.push_back(change.table + ": " + textOf(change));
  }
  return moved;
}

Moved s_look(const std::vector<std::string>& tables, const Becomes& becomes) {
  Database::Connection connection{std::string(s_database)};
  AddressMove move(connection, tables, becomes);
  move.plan(false);
  return s_result(move);
}

// Carries it out, unless more aliases would be left empty than `agreed`.
Moved s_write(const std::vector<std::string>& tables, const Becomes& becomes,
              const std::set<std::string>& agreed, const std::string& words) {
  Database::Connection connection{std::string(s_database)};
  return retryLost([&] {
    RecordedChange change(connection);
    AddressMove move(connection, tables, becomes);
    move.plan(true);
    requireAgreed(move.emptied(), agreed, words);
    move.write(change);
    change.commit();
    return s_result(move);
  });
}

ExitCode s_move(Session& session, const MoveArguments& arguments, const Becomes& becomes,
                const std::string& words) {
  session.tellTarget();
  const std::vector<std::string> tables = s_tables(session);
  Moved moved = s_look(tables, becomes);
  const bool mustAsk = !arguments.dryRun && !arguments.yes && !moved.emptied.empty();
  if (mustAsk && !mayEmpty(moved.emptied, words)) {
    say("nothing was changed");
    return ExitCode::Done;
  }
  if (!arguments.dryRun) moved = s_write(tables, becomes, moved.emptied, words);
  Json lines = Json::array();
  for (const std::string& line : moved.lines) {
    lines.push_back(printable(line));
    if (!session.isJson()) session.output().line(printable(line));
  }
  for (const std::string& row : moved.broken) say("warning: " + row + " cannot be read, and stays");
  if (moved.lines.empty()) say("no table has it");
  answerChange(session, Json{{"changes", lines}}, "", arguments.dryRun);
  if (!moved.broken.empty()) return ExitCode::BadData;
  return moved.lines.empty() ? ExitCode::NotFound : ExitCode::Done;
}

ExitCode s_rename(Session& session, const MoveArguments& arguments) {
  const EmailAddress from = parseAddress(arguments.from, false);
  const EmailAddress to = parseAddress(arguments.to, false);
  const std::string key = comparisonKey(from.address());
  const auto becomes = [&](const EmailAddress& address) {
    return std::optional(comparisonKey(address.address()) == key ? to : address);
  };
  return s_move(session, arguments, becomes, "rename");
}

ExitCode s_leave(Session& session, const MoveArguments& arguments) {
  const std::string key = comparisonKey(parseAddress(arguments.from, false).address());
  const auto becomes = [&](const EmailAddress& address) {
    return comparisonKey(address.address()) == key ? std::nullopt : std::optional(address);
  };
  const ExitCode code = s_move(session, arguments, becomes, "leave");
  say("a mail user is left as it is: 'tsl-address-map user remove' removes it");
  return code;
}

ExitCode s_moveDomain(Session& session, const MoveArguments& arguments) {
  const std::string key = comparisonDomain(parseDomain(arguments.from));
  const std::string to = parseDomain(arguments.to);
  const auto becomes = [&](const EmailAddress& address) -> std::optional<EmailAddress> {
    const std::string text = address.address();
    if (isMarker(text)) {
      if (comparisonDomain(markerDomain(text)) != key) return address;
      return EmailAddress::rfc5321Parse(
          text.substr(0, text.size() - markerDomain(text).size()) + to, true);
    }
    if (comparisonDomain(address.domain()) != key) return address;
    return EmailAddress::create(address.local(), to, false);
  };
  const ExitCode code = s_move(session, arguments, becomes, "move-domain");
  say("domains and mail users are left as they are: see 'tsl-address-map domain --help'");
  return code;
}

void s_addFlags(Command& command, MoveArguments& arguments) {
  command.flag("--yes", arguments.yes, "Remove aliases that are left empty without asking");
  addDryRun(command, arguments.dryRun);
}

}  // namespace

void addMoveCommands(Command& top) {
  const auto arguments = std::make_shared<MoveArguments>();
  Command rename = top.command(
      "rename", "Replace an address by another one in all tables: aliases, members, masks, rules",
      "  tsl-address-map rename ann.smith@example.com ann.jones@example.com --dry-run\n"
      "In one transaction, in any spelling; with --table in the tables of that name only. Refused"
      " (65) when a table has\nthe new address already, or aliases would lead back to themselves."
      " Prints what changes; with --json {\"changes\"}.\n"
      "Exit 1 when no table has the address.\n",
      Preparation::Database, withArguments(s_rename, arguments));
  rename.argument("OLD", arguments->from, "The address");
  rename.argument("NEW", arguments->to, "The address in its place");
  addDryRun(rename, arguments->dryRun);

  Command leave = top.command(
      "leave", "Take an address out of all tables: its alias, members, masks, rules",
      "  tsl-address-map leave ann@example.com --dry-run\n"
      "In one transaction; aliases that would be left empty are named first, and go, too. Prints"
      " what changes; with --json\n{\"changes\"}. Exit 1 when no table has the address.\n",
      Preparation::Database, withArguments(s_leave, arguments));
  leave.argument("ADDRESS", arguments->from, "The address");
  s_addFlags(leave, *arguments);

  Command move = top.command(
      "move-domain", "Replace a domain by another one in all tables, with its all-users markers",
      "  tsl-address-map move-domain example.com example.org --dry-run\n"
      "In one transaction, as rename does it for one address.\n",
      Preparation::Database, withArguments(s_moveDomain, arguments));
  move.argument("OLD", arguments->from, "The domain");
  move.argument("NEW", arguments->to, "The domain in its place");
  addDryRun(move, arguments->dryRun);
}

}  // namespace Tessel::Tool
