// The commands on the rows of an alias table: set, remove, show, list.
#include <memory>
#include <optional>
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
#include "cli/UnusedAliases.h"
#include "tables/AliasTable.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Members = std::set<EmailAddress>;

struct AliasArguments {
  std::string address;
  std::string copy;
  std::vector<std::string> members;
  RowFilterOptions filter;
  std::vector<std::string> unused;
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

// What is copied, as it is stored.
struct Copied {
  AliasRow row;
  std::optional<RuleRow> rule;
};

// The alias `from`; nothing when there is none. Throws Failure when it or its rule is broken.
std::optional<Copied> s_lookToCopy(AliasTable& table, const EmailAddress& from,
                                   const Session& session, bool dryRun) {
  const AliasLook look = lookToRemove(table, from, session, dryRun);
  if (look.kind == AliasLook::Kind::Absent) return std::nullopt;
  if (look.row.fault != RowFault::None) {
    throw brokenRow(look.row, aliasTableName(session.tableName()));
  }
  Copied copied{look.row, table.rules().look(look.row.alias)};
  if (copied.rule && !copied.rule->rule) throw brokenRule(copied.rule->name);
  return copied;
}

void s_requireNew(AliasTable& table, const EmailAddress& alias, const Session& session,
                  bool dryRun) {
  const AliasLook look = lookToRemove(table, alias, session, dryRun);
  if (look.kind == AliasLook::Kind::Absent) return;
  const std::string spelling =
      look.kind == AliasLook::Kind::Spelled ? ", in the spelling '" + look.row.name + "'" : "";
  throw Failure(ExitCode::BadData, "alias " + alias.address(),
                "table " + aliasTableName(session.tableName()) + " has it already" + spelling,
                "nothing was changed; choose another name, or add members with 'alias add'");
}

// Gives the new alias `to` the rule of the copied one, and no other: one may be left of an alias
// that another program has removed.
void s_copyRule(AliasTable& table, const Copied& copied, const EmailAddress& to) {
  const std::optional<RuleRow> left = table.rules().look(to);
  if (left && (!copied.rule || left->name != to.address())) {
    table.rules().remove(table.change(), left->name);
  }
  if (copied.rule) table.rules().set(table.change(), to.address(), *copied.rule->rule);
}

ExitCode s_copy(Session& session, const AliasArguments& arguments) {
  const EmailAddress from = parseAddress(arguments.address, false);
  const EmailAddress to = parseAddress(arguments.copy, false);
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  std::optional<Copied> copied;
  table.transact([&] {
    copied = s_lookToCopy(table, from, session, arguments.dryRun);
    if (!copied) return false;
    s_requireNew(table, to, session, arguments.dryRun);
    requireWritable(to, copied->row.members, localNamesOf(arguments.localNames));
    refuseHarm(table, to, copied->row.members, {}, arguments.allowCycle);
    if (arguments.dryRun) return false;
    table.set(to, copied->row.members);
    s_copyRule(table, *copied, to);
    return true;
  });
  if (!copied) {
    say(noAlias(from, session));
    return ExitCode::NotFound;
  }
  warnOfWildcard(to);
  if (!arguments.dryRun) session.detail("copied " + copied->row.name + " to " + to.address());
  Json document = s_jsonOf(to, copied->row.members);
  if (copied->rule) document["rule"] = jsonOf(*copied->rule->rule);
  answerChange(session, document, changeLine({}, to, copied->row.members), arguments.dryRun);
  if (copied->rule && arguments.dryRun && !session.isJson()) {
    session.output().line(printable("+ " + textOf(RuleRow{to.address(), copied->rule->rule})));
  }
  return ExitCode::Done;
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
  std::optional<UnusedAliases> unused;
  if (!arguments.unused.empty()) {
    unused.emplace(arguments.unused, aliasTableName(session.tableName()));
  }
  return listRows<AliasTable>(session, TableKind::Alias, arguments.filter,
                              [&unused](const AliasRow& row, ItemList& list) {
                                if (unused && !unused->has(row.alias)) return;
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

  Command copy = group.command(
      "copy", "Copy an alias with its rule into a new alias",
      "  tsl-address-map alias copy team@example.com project@example.com\n"
      "Prints nothing; with --json {\"address\", \"members\"} of the new alias, and \"rule\" if it"
      " has one. Refused (65)\nwhen the table has the new alias already. Exit 1 when there is no"
      " alias to copy.\n",
      Preparation::Database, withArguments(s_copy, arguments));
  copy.argument("OLD", arguments->address, "The alias to copy, which stays");
  copy.argument("NEW", arguments->copy, "The new alias");
  copy.flag("--local-names", arguments->localNames,
            "Also copy members without a domain, such as root");
  copy.flag("--allow-cycle", arguments->allowCycle, "Write it even if its members lead back to it");
  addDryRun(copy, arguments->dryRun);

  Command show = group.command(
      "show", "Show the members of an alias as they are stored; exit 1 when there is none",
      "  tsl-address-map alias show team@example.com\n"
      "One member per line; with --json {\"address\", \"found\", \"members\"}.\n",
      Preparation::Database, withArguments(s_show, arguments));
  show.argument("ADDRESS", arguments->address, "The alias");

  Command list = group.command(
      "list", "List the aliases with their members",
      "  tsl-address-map alias list --domain example.com\n"
      "  tsl-address-map alias list --match '*@example.net' | cut -f1\n"
      "  tsl-address-map alias list --changed-since yesterday\n"
      "  sudo tsl-address-map alias list --unused /var/lib/tsl-address-map/used\n"
      "One alias per line: ADDRESS<TAB>MEMBER,MEMBER...; with --json a list of {\"address\","
      " \"members\"}.\nBroken rows are reported on standard error, and the exit status is 65"
      " then.\n",
      Preparation::Database, withArguments(s_list, arguments));
  addRowFilter(list, arguments->filter, TableFormat::alias());
  list.optionList(
      "--unused", arguments->unused, "FILE",
      "Only aliases that no mail server has asked for, by the file of 'serve --count-use';"
      " repeat it for the files of several services");

  addAliasEditCommands(group);
  addAliasExpandCommand(group);
  addAliasTreeCommand(group);
  addAliasWhoCommand(group);
  addRuleCommands(group);
  addAliasPruneCommand(group);
  addEditCommand(group, TableFormat::alias());
  addExportCommand(group, TableFormat::alias());
  addImportCommand(group, TableFormat::alias());
}

}  // namespace Tessel::Tool
