// The commands on single members of aliases: add, drop.
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/AliasEdit.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "tables/AddressKey.h"
#include "tables/AliasTable.h"
#include "tables/Extension.h"
#include "tables/TableNames.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Members = std::set<EmailAddress>;

constexpr char s_everywhereWords[] = "alias drop --everywhere";

struct EditArguments {
  std::string address;
  std::vector<std::string> members;
  bool everywhere = false;
  bool allowCycle = false;
  bool localNames = false;
  bool newSpelling = false;
  bool removeEmpty = false;
  bool yes = false;
  bool dryRun = false;
};

// The members of the row; none where there is no row, or its members are empty. Throws Failure when
// the row cannot be read.
Members s_membersOf(const AliasLook& look, const Session& session) {
  if (look.kind == AliasLook::Kind::Absent) return {};
  const bool readable = look.row.fault == RowFault::None || look.row.fault == RowFault::EmptyValue;
  if (!readable) throw brokenRow(look.row, aliasTableName(session.tableName()));
  return look.row.members;
}

Json s_document(const EmailAddress& alias, const Members& members, const char* what,
                const Members& changed) {
  Json document{{"address", alias.address()}};
  document["members"] = jsonOf(members);
  document[what] = jsonOf(changed);
  return document;
}

ExitCode s_add(Session& session, const EditArguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  const Members wanted = parseMembers(arguments.members, alias, localNamesOf(arguments.localNames));
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  Members members;
  Members added;
  AliasLook look;
  table.transact([&] {
    look =
        lookToWrite(table, alias, session, arguments.dryRun, newSpellingOf(arguments.newSpelling));
    members = s_membersOf(look, session);
    added = pickMembers(wanted, members, false);
    if (added.empty()) return false;
    const Members before = members;
    members.insert(added.begin(), added.end());
    refuseHarm(table, alias, members, before, arguments.allowCycle);
    if (arguments.dryRun) return false;
    table.set(alias, members);
    return true;
  });
  warnOfWildcard(alias);
  if (!arguments.dryRun) session.detail("added " + joined(added) + " to " + alias.address());
  answerChange(session, s_document(alias, members, "added", added),
               added.empty() ? "" : changeLine(look, alias, members), arguments.dryRun);
  return ExitCode::Done;
}

Members s_parseDropped(const std::vector<std::string>& texts) {
  Members members;
  // Whatever is in a table may be removed.
  forEachText(texts, [&](const std::string& text) { members.insert(parseAddress(text, true)); });
  return members;
}

// What becomes of one row.
struct Change {
  EmailAddress alias;
  AliasLook look;   // The row as it is in the table.
  Members members;  // What is left; the alias is removed when nothing is.

  [[nodiscard]] std::string line() const {
    return members.empty() ? "- " + alias.address() : changeLine(look, alias, members);
  }
  void write(AliasTable& table) const {
    if (members.empty()) {
      if (table.remove(look.row.name)) say("the rule of " + look.row.name + " is removed, too");
    } else {
      table.set(alias, members);
    }
  }
};

void s_refuseEmpty(const Change& change, bool removeEmpty) {
  if (!change.members.empty() || removeEmpty) return;
  throw Failure(ExitCode::BadData, "alias " + change.alias.address(), "it would be left empty",
                "nothing was changed; give --remove-empty to remove the alias");
}

ExitCode s_dropFrom(Session& session, const EditArguments& arguments) {
  const EmailAddress alias = parseAddress(arguments.address, false);
  const Members wanted = s_parseDropped(arguments.members);
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  bool present = false;
  AliasLook look;
  Change change;
  Members dropped;
  table.transact([&] {
    look = lookToRemove(table, alias, session, arguments.dryRun);
    present = look.kind != AliasLook::Kind::Absent;
    const Members members = s_membersOf(look, session);
    dropped = pickMembers(members, wanted, true);
    change = {present ? look.row.alias : alias, look, pickMembers(members, wanted, false)};
    if (dropped.empty()) return false;
    s_refuseEmpty(change, arguments.removeEmpty);
    if (arguments.dryRun) return false;
    change.write(table);
    return true;
  });
  if (!present) say(noAlias(alias, session));
  tellSpelling(alias, look);
  for (const EmailAddress& member : pickMembers(wanted, dropped, false)) {
    if (present) say(member.address() + " is not a member of " + alias.address());
  }
  if (!dropped.empty() && !arguments.dryRun) {
    session.detail("dropped " + joined(dropped) + " from " + alias.address());
  }
  Json document = s_document(alias, change.members, "dropped", dropped);
  document["removed"] = !dropped.empty() && change.members.empty();
  answerChange(session, document, dropped.empty() ? "" : change.line(), arguments.dryRun);
  return dropped.empty() ? ExitCode::NotFound : ExitCode::Done;
}

// What dropping a member everywhere does.
struct Everywhere {
  std::vector<Change> changes;
  std::vector<AliasRow> broken;                   // Rows that may have the member too.
  std::map<EmailAddress, EmailAddress> extended;  // A member with an extension, by its alias.

  [[nodiscard]] std::set<std::string> emptied() const {
    std::set<std::string> aliases;
    for (const Change& change : changes) {
      if (change.members.empty()) aliases.insert(change.alias.address());
    }
    return aliases;
  }
};

Everywhere s_everywhere(const std::vector<AliasRow>& rows, const EmailAddress& member) {
  Everywhere all;
  const std::string key = comparisonKey(member.address());
  const auto isMember = [&key](const EmailAddress& one) {
    return comparisonKey(one.address()) == key;
  };
  for (const AliasRow& row : rows) {
    if (row.fault != RowFault::None) {
      if (row.fault != RowFault::EmptyValue) all.broken.push_back(row);
      continue;
    }
    for (const EmailAddress& one : row.members) {
      const std::string base = withoutExtension(one.address());
      if (!base.empty() && comparisonKey(base) == key) all.extended[row.alias] = one;
    }
    if (std::none_of(row.members.begin(), row.members.end(), isMember)) continue;
    all.changes.push_back(
        {row.alias, {AliasLook::Kind::Present, row}, pickMembers(row.members, {member}, false)});
  }
  return all;
}

void s_answerEverywhere(Session& session, const EmailAddress& member, const Everywhere& all,
                        bool dryRun) {
  Json changed = Json::array();
  Json removed = Json::array();
  for (const Change& change : all.changes) {
    if (!session.isJson()) {
      session.output().line(printable(change.line()));
    } else if (change.members.empty()) {
      removed.push_back(change.alias.address());
    } else {
      changed.push_back(
          Json{{"address", change.alias.address()}, {"members", jsonOf(change.members)}});
    }
  }
  answerChange(session,
               Json{{"member", member.address()}, {"changed", changed}, {"removed", removed}}, "",
               dryRun);
}

// Carries out what was agreed: `agreed` are the aliases that may go, all where it is null.
Everywhere s_writeEverywhere(AliasTable& table, const EmailAddress& member,
                             const std::set<std::string>* agreed, Progress& progress) {
  Everywhere all;
  table.transact([&] {
    progress.begin("reading", "rows");
    all = s_everywhere(table.rowsLocked(), member);
    if (agreed != nullptr) requireAgreed(all.emptied(), *agreed, s_everywhereWords);
    progress.begin("writing", "aliases", all.changes.size());
    for (const Change& change : all.changes) {
      change.write(table);
      progress.add(1);
    }
    return true;
  });
  return all;
}

ExitCode s_dropEverywhere(Session& session, const EditArguments& arguments) {
  const EmailAddress member = parseAddress(arguments.address, true);
  session.tellTarget(TableKind::Alias);
  const std::string name = aliasTableName(session.tableName());
  AliasTable table(name);
  Everywhere all;
  Progress progress;
  if (arguments.yes && !arguments.dryRun) {
    all = s_writeEverywhere(table, member, nullptr, progress);
  } else {
    progress.begin("reading", "rows");
    // Nobody waits for the rows while a person thinks.
    all = s_everywhere(table.rows(""), member);
    const std::set<std::string> emptied = all.emptied();
    if (!arguments.dryRun && !emptied.empty() && !mayEmpty(emptied, s_everywhereWords)) {
      say("nothing was changed");
      return ExitCode::Done;
    }
    if (!arguments.dryRun) all = s_writeEverywhere(table, member, &emptied, progress);
  }
  progress.end();
  for (const AliasRow& row : all.broken) report(brokenRow(row, name));
  for (const auto& [alias, extended] : all.extended) {
    say("warning: alias " + alias.address() + " has the member " + extended.address() +
        ", which stays: drop it by that address");
  }
  if (all.changes.empty()) say("no alias of table " + name + " has the member " + member.address());
  s_answerEverywhere(session, member, all, arguments.dryRun);
  if (!all.broken.empty()) return ExitCode::BadData;
  return all.changes.empty() ? ExitCode::NotFound : ExitCode::Done;
}

ExitCode s_drop(Session& session, const EditArguments& arguments) {
  if (arguments.everywhere != arguments.members.empty()) {
    throw Failure(ExitCode::Usage, "alias drop",
                  "it takes an alias and members, or --everywhere and one member",
                  "see 'tsl-address-map alias drop --help'");
  }
  return arguments.everywhere ? s_dropEverywhere(session, arguments)
                              : s_dropFrom(session, arguments);
}

void s_addDrop(Command& group, const std::shared_ptr<EditArguments>& arguments) {
  Command drop = group.command(
      "drop", "Remove members from an alias, or one from all aliases",
      "  tsl-address-map alias drop team@example.com bob@example.net\n"
      "  tsl-address-map alias drop --everywhere bob@example.net --dry-run\n"
      "Of one alias: prints nothing; with --json {\"address\", \"members\", \"dropped\","
      " \"removed\"}; exit 1 when it has none of\nthe members. Everywhere, in one transaction:"
      " prints the aliases that change (~) or are removed (-); with --json\n{\"member\", "
      "\"changed\","
      " \"removed\"}; exit 1 when there is none.\n",
      Preparation::Database, withArguments(s_drop, arguments));
  drop.argument("ADDRESS", arguments->address, "The alias; with --everywhere the member");
  drop.optionalArguments("MEMBER", arguments->members,
                         "A member to remove, or - for standard input");
  Option everywhere =
      drop.flag("--everywhere", arguments->everywhere, "Remove the member from all aliases");
  drop.flag("--remove-empty", arguments->removeEmpty,
            "Remove the alias if no member is left, which is refused otherwise")
      .excludes(everywhere);
  drop.flag("--yes", arguments->yes,
            "With --everywhere: remove aliases that are left empty without asking")
      .needs(everywhere);
  addDryRun(drop, arguments->dryRun);
}

}  // namespace

void addAliasEditCommands(Command& group) {
  const auto arguments = std::make_shared<EditArguments>();
  Command add = group.command(
      "add", "Add members to an alias, which is created if it is missing",
      "  tsl-address-map alias add team@example.com carl@example.com\n"
      "  tsl-address-map alias add team@example.com - <addresses.txt\n"
      "Prints nothing; with --json {\"address\", \"members\", \"added\"}, the members being those"
      " that it has then.\n",
      Preparation::Database, withArguments(s_add, arguments));
  add.argument("ADDRESS", arguments->address, "The alias");
  add.arguments("MEMBER", arguments->members, "An address to add, or - for standard input");
  add.flag("--local-names", arguments->localNames,
           "Also take members without a domain, such as root");
  addNewSpelling(add, arguments->newSpelling);
  add.flag("--allow-cycle", arguments->allowCycle, "Write it even if its members lead back to it");
  addDryRun(add, arguments->dryRun);
  s_addDrop(group, arguments);
}

}  // namespace Tessel::Tool
