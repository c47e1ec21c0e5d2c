// The commands on the rows of an alias table: set, remove, show, list.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "alias/AddressAliasDbMySQL.h"
#include "cli/AliasEdit.h"
#include "cli/AliasReport.h"
#include "cli/AliasTable.h"
#include "cli/Command.h"
#include "cli/DryRun.h"

namespace Tessel::Tool {

namespace {

using Members = std::set<EmailAddress>;

struct Arguments {
  std::string address;
  std::vector<std::string> members;
  std::string domain;
  bool allowCycle = false;
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

ExitCode s_set(Session& session, const Arguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  const Members members = parseMembers(arguments.members, alias);
  warnOfMixedMarker(members, alias);
  session.tellTarget();
  AliasTable table(aliasTableName(session.tableName()));
  bool present = false;
  table.transact([&] {
    const AliasLook look = arguments.dryRun ? table.look(alias) : table.lookLocked(alias);
    refuseOther(look, alias, session);
    if (!arguments.allowCycle) refuseCycle(table, alias, members);
    present = look.kind == AliasLook::Kind::Present;
    if (!arguments.dryRun) table.set(alias, members);
    return !arguments.dryRun;
  });
  if (!arguments.dryRun) session.detail("set " + alias.address() + " to " + joined(members));
  answerChange(session, s_jsonOf(alias, members), changeLine(present ? "~" : "+", alias, members),
               arguments.dryRun);
  return ExitCode::Done;
}

ExitCode s_remove(Session& session, const Arguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  session.tellTarget();
  AliasTable table(aliasTableName(session.tableName()));
  AliasLook look;
  table.transact([&] {
    look = arguments.dryRun ? table.look(alias) : table.lookLocked(alias);
    refuseOther(look, alias, session);
    if (look.kind != AliasLook::Kind::Present || arguments.dryRun) return false;
    table.remove(look.row.name);
    return true;
  });
  const bool present = look.kind == AliasLook::Kind::Present;
  if (!present) sayNoAlias(alias, session);
  if (present && !arguments.dryRun) session.detail("removed " + alias.address());
  answerChange(session, Json{{"address", alias.address()}, {"removed", present}},
               present ? "- " + look.row.name + ":" + look.row.text : "", arguments.dryRun);
  return present ? ExitCode::Done : ExitCode::NotFound;
}

// Tells why there is no answer for `alias`. Throws Failure when its row is broken.
void s_explainAbsence(const EmailAddress& alias, const Session& session) {
  const AliasLook look = AliasTable(aliasTableName(session.tableName())).look(alias);
  if (look.kind == AliasLook::Kind::Present)
    throw brokenRow(look.row, aliasTableName(session.tableName()));
  sayNoAlias(alias, session);
  if (look.kind == AliasLook::Kind::Other) {
    say("hint: there is an alias of another spelling: " + look.row.name);
  }
}

ExitCode s_show(Session& session, const Arguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  session.tellTarget();
  Members members;
  withTableFaultsNamed(session, [&] { (*LibraryTable(session)).queryFindMembers(alias, members); });
  const bool found = !members.empty();
  if (!found) s_explainAbsence(alias, session);
  if (session.isJson()) {
    Json document{{"address", alias.address()}, {"found", found}};
    document["members"] = jsonOf(members);
    session.output().document(document);
  } else {
    for (const EmailAddress& member : members) session.output().line(member.address());
  }
  return found ? ExitCode::Done : ExitCode::NotFound;
}

ExitCode s_list(Session& session, const Arguments& arguments) {
  const std::string domain = arguments.domain.empty() ? "" : parseDomain(arguments.domain);
  session.tellTarget();
  const std::string table = aliasTableName(session.tableName());
  const auto rows = AliasTable(table).rows(domain);
  ExitCode code = ExitCode::Done;
  ItemList list(session.output());
  for (const AliasRow& row : rows) {
    if (row.state != AliasRow::State::Good) {
      report(brokenRow(row, table));
      code = ExitCode::BadData;
      continue;
    }
    list.add(row.alias.address() + "\t" + joined(row.members),
             [&row] { return s_jsonOf(row.alias, row.members); });
  }
  list.end();
  return code;
}

template <class Run>
Choice s_choice(const std::string& words, const std::shared_ptr<Arguments>& arguments, Run run) {
  return {words, Preparation::Database,
          [arguments, run](Session& session) { return run(session, *arguments); }};
}

}  // namespace

void addAliasCommands(CLI::App& app, Choice& chosen) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& group = addGroup(app, "alias", "Show and change alias tables");

  CLI::App& set = addCommand(
      group, "set", "Add an alias, or replace the members of an existing one",
      "  tsl-address-map alias set team@example.com ann@example.com bob@example.net\n"
      "  tsl-address-map alias set all@example.com allusers_example.com\n"
      "Prints nothing; with --json the row: {\"address\", \"members\"}.\n"
      "The member allusers_DOMAIN, alone, stands for all user mailboxes of the alias's own"
      " domain.\n"
      "Programs that have the alias in memory keep its old members until they reopen the table.\n",
      chosen, s_choice("alias set", arguments, s_set));
  set.add_option("ADDRESS", arguments->address, "The alias")->required();
  set.add_option("MEMBER", arguments->members, "An address it stands for")->required();
  set.add_flag("--allow-cycle", arguments->allowCycle,
               "Write it even if its members lead back to it");
  addDryRun(set, arguments->dryRun);

  CLI::App& remove = addCommand(group, "remove", "Remove an alias; exit 1 when there is none",
                                "  tsl-address-map alias remove team@example.com\n"
                                "Prints nothing; with --json {\"address\", \"removed\"}.\n",
                                chosen, s_choice("alias remove", arguments, s_remove));
  remove.add_option("ADDRESS", arguments->address, "The alias")->required();
  addDryRun(remove, arguments->dryRun);

  CLI::App& show = addCommand(
      group, "show", "Show the members of an alias as they are stored; exit 1 when there is none",
      "  tsl-address-map alias show team@example.com\n"
      "One member per line; with --json {\"address\", \"found\", \"members\"}.\n",
      chosen, s_choice("alias show", arguments, s_show));
  show.add_option("ADDRESS", arguments->address, "The alias")->required();

  CLI::App& list = addCommand(
      group, "list", "List the aliases with their members",
      "  tsl-address-map alias list --domain example.com\n"
      "  tsl-address-map alias list | cut -f1\n"
      "One alias per line: ADDRESS<TAB>MEMBER,MEMBER...; with --json a list of {\"address\","
      " \"members\"}.\nBroken rows are reported on standard error, and the exit code is 65"
      " then.\n",
      chosen, s_choice("alias list", arguments, s_list));
  list.add_option("--domain", arguments->domain, "Only the aliases of this domain")
      ->option_text("DOMAIN");

  addAliasEditCommands(group, chosen);
  addAliasExpandCommand(group, chosen);
  addAliasTreeCommand(group, chosen);
  addAliasWhoCommand(group, chosen);
  addExportCommand(group, TableFormat::alias(), chosen);
  addImportCommand(group, TableFormat::alias(), chosen);
}

}  // namespace Tessel::Tool
