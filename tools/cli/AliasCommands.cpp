// The commands on the rows of an alias table: set, remove, show, list.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "alias/AddressAliasDbMySQL.h"
#include "cli/AddressInput.h"
#include "cli/AliasEdit.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "tables/AliasTable.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Members = std::set<EmailAddress>;

struct AliasArguments {
  std::string address;
  std::vector<std::string> members;
  std::string domain;
  bool allowCycle = false;
  bool localNames = false;
  bool newSpelling = false;
  bool dryRun = false;
};

// A table of a store made without preload: it answers from the table alone, and opening it asks
// nothing.
class LibraryTable {
 public:
  explicit LibraryTable(const Session& session)
      : m_store(AddressMapDb::MySQL, false), m_handle(m_store.aliasDb(session.tableName())) {}

  AddressAliasDbMySQL& operator*() const {
    return *static_cast<AddressAliasDbMySQL*>(m_handle.impl());
  }

 private:
  AddressMapDb m_store;
  AddressAliasDb m_handle;
};

Json s_jsonOf(const EmailAddress& alias, const Members& members) {
  return Json{{"address", alias.address()}, {"members", jsonOf(members)}};
}

ExitCode s_set(Session& session, const AliasArguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  const Members members =
      parseMembers(arguments.members, alias, localNamesOf(arguments.localNames));
  warnOfWildcard(alias);
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  AliasLook look;
  table.transact([&] {
    look =
        lookToWrite(table, alias, session, arguments.dryRun, newSpellingOf(arguments.newSpelling));
    refuseHarm(table, alias, members, look.row.members, arguments.allowCycle);
    if (!arguments.dryRun) table.set(alias, members);
    return !arguments.dryRun;
  });
  if (!arguments.dryRun) session.detail("set " + alias.address() + " to " + joined(members));
  answerChange(session, s_jsonOf(alias, members), changeLine(look, alias, members),
               arguments.dryRun);
  return ExitCode::Done;
}

ExitCode s_remove(Session& session, const AliasArguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  AliasLook look;
  bool hadRule = false;
  table.transact([&] {
    look = lookToRemove(table, alias, session, arguments.dryRun);
    if (look.kind == AliasLook::Kind::Absent || arguments.dryRun) return false;
    hadRule = table.remove(look.row.name);
    return true;
  });
  const bool present = look.kind != AliasLook::Kind::Absent;
  if (!present) say(noAlias(alias, session));
  tellSpelling(alias, look);
  if (hadRule) say("the rule of " + look.row.name + " is removed, too");
  if (present && !arguments.dryRun) session.detail("removed " + alias.address());
  answerChange(session, Json{{"address", alias.address()}, {"removed", present}},
               present ? "- " + look.row.name + ":" + look.row.text : "", arguments.dryRun);
  return present ? ExitCode::Done : ExitCode::NotFound;
}

// The members of the row of another spelling than `alias`. Reports that there is none. Throws
// Failure when the row is broken.
Members s_membersElsewhere(const EmailAddress& alias, const Session& session) {
  AliasTable table(aliasTableName(session.tableName()));
  AliasLook look = table.look(alias);
  const EmailAddress asked = baseOf(table, alias, look).value_or(alias);
  const bool isOwn = look.kind == AliasLook::Kind::Present || look.kind == AliasLook::Kind::Spelled;
  if (isOwn && look.row.fault != RowFault::None) {
    throw brokenRow(look.row, aliasTableName(session.tableName()));
  }
  tellSpelling(asked, look);
  if (isOwn) return look.row.members;
  say(noAlias(alias, session));
  if (look.kind == AliasLook::Kind::Other) {
    say("hint: there is an alias that the server takes for it: " + look.row.name);
  }
  return {};
}

ExitCode s_show(Session& session, const AliasArguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  session.tellTarget(TableKind::Alias);
  Members members;
  withTableFaultsNamed(session, TableKind::Alias,
                       [&] { (*LibraryTable(session)).queryFindMembers(alias, members); });
  if (members.empty()) members = s_membersElsewhere(alias, session);
  const bool found = !members.empty();
  const auto rule =
      found ? AliasTable(aliasTableName(session.tableName())).rules().look(alias) : std::nullopt;
  if (session.isJson()) {
    Json document{{"address", alias.address()}, {"found", found}};
    document["members"] = jsonOf(members);
    if (rule && rule->rule) document["rule"] = jsonOf(*rule->rule);
    session.output().document(document);
  } else {
    for (const EmailAddress& member : members) session.output().line(member.address());
    if (rule) say(textOf(*rule));
  }
  return found ? ExitCode::Done : ExitCode::NotFound;
}

ExitCode s_list(Session& session, const AliasArguments& arguments) {
  return listRows<AliasTable>(session, TableKind::Alias, arguments.domain,
                              [](const AliasRow& row, ItemList& list) {
                                list.add(row.alias.address() + "\t" + joined(row.members),
                                         [&row] { return s_jsonOf(row.alias, row.members); });
                              });
}

}  // namespace

void addAliasCommands(Command& top) {
  const auto arguments = std::make_shared<AliasArguments>();
  Command group = top.group("alias", "Show and change alias tables");

  Command set = group.command(
      "set", "Add an alias, or replace the members of an existing one",
      "  tsl-address-map alias set team@example.com ann@example.com bob@example.net\n"
      "  tsl-address-map alias set all@example.com allusers_example.com\n"
      "Prints nothing; with --json the row: {\"address\", \"members\"}.\n"
      "The member allusers_DOMAIN, alone, means all user mailboxes of the alias's own"
      " domain.\n"
      "Programs that have the alias in memory keep its old members until they reopen the table.\n",
      Preparation::Database, withArguments(s_set, arguments));
  set.argument("ADDRESS", arguments->address, "The alias");
  set.arguments("MEMBER", arguments->members, "A member, or - for standard input");
  set.flag("--local-names", arguments->localNames,
           "Also take members without a domain, such as root");
  addNewSpelling(set, arguments->newSpelling);
  set.flag("--allow-cycle", arguments->allowCycle, "Write it even if its members lead back to it");
  addDryRun(set, arguments->dryRun);

  Command remove = group.command("remove", "Remove an alias; exit 1 when there is none",
                                 "  tsl-address-map alias remove team@example.com\n"
                                 "Prints nothing; with --json {\"address\", \"removed\"}.\n",
                                 Preparation::Database, withArguments(s_remove, arguments));
  remove.argument("ADDRESS", arguments->address, "The alias");
  addDryRun(remove, arguments->dryRun);

  Command show = group.command(
      "show", "Show the members of an alias as they are stored; exit 1 when there is none",
      "  tsl-address-map alias show team@example.com\n"
      "One member per line; with --json {\"address\", \"found\", \"members\"}.\n",
      Preparation::Database, withArguments(s_show, arguments));
  show.argument("ADDRESS", arguments->address, "The alias");

  Command list = group.command(
      "list", "List the aliases with their members",
      "  tsl-address-map alias list --domain example.com\n"
      "  tsl-address-map alias list | cut -f1\n"
      "One alias per line: ADDRESS<TAB>MEMBER,MEMBER...; with --json a list of {\"address\","
      " \"members\"}.\nBroken rows are reported on standard error, and the exit status is 65"
      " then.\n",
      Preparation::Database, withArguments(s_list, arguments));
  list.option("--domain", arguments->domain, "DOMAIN", "Only the aliases of this domain");

  addAliasEditCommands(group);
  addAliasExpandCommand(group);
  addAliasTreeCommand(group);
  addAliasWhoCommand(group);
  addRuleCommands(group);
  addAliasPruneCommand(group);
  addExportCommand(group, TableFormat::alias());
  addImportCommand(group, TableFormat::alias());
}

}  // namespace Tessel::Tool
