// What the commands that change rows of an alias table have in common.
#include "cli/AliasEdit.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "cli/AddressInput.h"
#include "cli/RowReport.h"
#include "tables/AddressKey.h"
#include "tables/AliasChange.h"
#include "tables/Extension.h"
#include "tables/SpellingIndex.h"
#include "tables/TableNames.h"
#include "terminal/Confirm.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

void s_requireWritable(const EmailAddress& alias) {
  const auto why = refusalOf(alias);
  if (!why) return;
  throw Failure(ExitCode::BadData, "alias '" + alias.address() + "'", *why,
                "write the literal without it");
}

void s_requireWritable(const EmailAddress& member, const EmailAddress& alias,
                       LocalNames localNames) {
  const auto why = refusalOfMember(member, alias, localNames);
  if (!why) return;
  throw Failure(ExitCode::BadData, "alias " + alias.address(), *why,
                "write it as NAME@DOMAIN, or use 'allusers_" + alias.domain() +
                    "' for all user mailboxes of the domain");
}

}  // namespace

std::set<EmailAddress> parseMembers(const std::vector<std::string>& texts,
                                    const EmailAddress& alias, LocalNames localNames) {
  s_requireWritable(alias);
  std::set<EmailAddress> members;
  forEachText(texts, [&](const std::string& text) {
    const EmailAddress member = parseAddress(text, true);
    s_requireWritable(member, alias, localNames);
    members.insert(member);
  });
  if (!members.empty()) return members;
  throw Failure(ExitCode::BadData, "standard input", "it has no members",
                "nothing was changed; write one address per line");
}

void requireWritable(const EmailAddress& alias, const std::set<EmailAddress>& members,
                     LocalNames localNames) {
  s_requireWritable(alias);
  for (const EmailAddress& member : members) s_requireWritable(member, alias, localNames);
}

void warnOfWildcard(const EmailAddress& alias) {
  if (alias.local() != "*") return;
  say("warning: to alias tables '" + alias.address() +
      "' is an ordinary address: it catches no mail for other names of " + alias.domain() +
      ", unless the lookup service runs with --catch-all");
}

NewSpelling newSpellingOf(bool isAllowed) {
  return isAllowed ? NewSpelling::Allow : NewSpelling::Refuse;
}

void addNewSpelling(Command& command, bool& isAllowed) {
  command.flag("--new-spelling", isAllowed,
               "Write a row of its own even if the table has the alias in another spelling");
}

AliasLook lookToWrite(AliasTable& table, const EmailAddress& alias, const Session& session,
                      bool dryRun, NewSpelling newSpelling) {
  AliasLook look = lookToRemove(table, alias, session, dryRun);
  if (look.kind != AliasLook::Kind::Spelled) return look;
  if (newSpelling == NewSpelling::Allow && !look.isInTheWay) return {};
  const std::string why = "table " + aliasTableName(session.tableName()) +
                          " has it in the spelling '" + look.row.name + "'";
  throw Failure(ExitCode::BadData, "alias " + alias.address(), why,
                look.isInTheWay ? "use that spelling, or remove that alias first"
                                : "use that spelling; --new-spelling makes two rows, of which mail"
                                  " servers find one");
}

AliasLook lookToRemove(AliasTable& table, const EmailAddress& alias, const Session& session,
                       bool dryRun) {
  AliasLook look = dryRun ? table.look(alias) : table.lookLocked(alias);
  if (look.kind != AliasLook::Kind::Other) return look;
  throw Failure(ExitCode::BadData, "alias " + alias.address(),
                "the server takes it for the alias '" + look.row.name + "' of table " +
                    aliasTableName(session.tableName()) + ", which is another address",
                "use the name of that alias, or remove that alias first");
}

std::optional<EmailAddress> baseOf(AliasTable& table, const EmailAddress& address,
                                   AliasLook& look) {
  const std::string text = withoutExtension(address.address());
  if (look.kind != AliasLook::Kind::Absent || text.empty()) return std::nullopt;
  const EmailAddress base = EmailAddress::rfc5321Parse(text, false);
  look = table.look(base);
  if (look.kind != AliasLook::Kind::Present && look.kind != AliasLook::Kind::Spelled) {
    look = {};
    return std::nullopt;
  }
  say("alias " + address.address() + " has no row; without its extension it is " + base.address());
  return base;
}

void tellSpelling(const EmailAddress& alias, const AliasLook& look) {
  if (look.kind != AliasLook::Kind::Spelled) return;
  say("alias " + alias.address() + " has the spelling " + look.row.name);
}

namespace {

// The row `row`, which has the members `before` now.
AliasChange s_written(const TableEntry& row, const std::set<EmailAddress>& before) {
  AliasChange change;
  change.write(row);
  if (!before.empty()) change.setBefore(0, joined(before));
  return change;
}

// The row `row`, which has the members `before` now, and the rows that it leads to then or now.
AliasChange s_reached(AliasTable& table, const TableEntry& row,
                      const std::set<EmailAddress>& before) {
  AliasChange change = s_written(row, before);
  SpellingIndex met;
  met.add(row.key.address());
  std::set<EmailAddress> unasked;
  const auto meet = [&](const auto& members) {
    for (const EmailAddress& member : members) {
      if (met.add(member.address()).isNew) unasked.insert(member);
    }
  };
  meet(row.values);
  meet(before);
  while (!unasked.empty()) {
    for (const auto& [found, next] : table.lookSpelled(std::exchange(unasked, {}))) {
      change.keep(next.name, next.text);
      meet(next.members);
    }
  }
  return change;
}

void s_refuseLoops(const EmailAddress& alias, AliasChange& change) {
  for (const AliasLoop& loop : change.loops()) {
    if (!loop.isNew) {
      return say("warning: alias " + alias.address() +
                 " is in an alias loop already: " + textOf(loop.path));
    }
    throw Failure(ExitCode::BadData, "alias " + alias.address(),
                  "it would lead back to itself: " + textOf(loop.path),
                  "nothing was changed; leave one of these members out, or give --allow-cycle");
  }
}

void s_refuseLostMarkers(const EmailAddress& alias, AliasChange& change) {
  const std::vector<LostMarker> lost = change.lostMarkers();
  const auto first =
      std::find_if(lost.begin(), lost.end(), [](const LostMarker& marker) { return marker.isNew; });
  if (first == lost.end()) {
    if (!lost.empty()) say("warning: alias " + alias.address() + ": " + lost.front().why());
    return;
  }
  throw Failure(ExitCode::BadData, "alias " + alias.address(), first->why(),
                std::string("nothing was changed; ").append(s_sideBySide));
}

}  // namespace

void refuseHarm(AliasTable& table, const EmailAddress& alias, const std::set<EmailAddress>& members,
                const std::set<EmailAddress>& before, bool allowCycle) {
  const TableEntry row{alias, {members.begin(), members.end()}};
  AliasChange reached = s_reached(table, row, before);
  if (!allowCycle) s_refuseLoops(alias, reached);
  if (!reached.changesReach()) return s_refuseLostMarkers(alias, reached);
  // Only now do the aliases above matter. To find them takes the whole table.
  AliasChange whole = s_written(row, before);
  table.forEachRow([&](std::string_view name, std::string_view text) { whole.keep(name, text); });
  s_refuseLostMarkers(alias, whole);
}

std::set<EmailAddress> pickMembers(const std::set<EmailAddress>& some,
                                   const std::set<EmailAddress>& members, bool has) {
  std::unordered_set<std::string> keys;
  for (const EmailAddress& member : members) keys.insert(comparisonKey(member.address()));
  std::set<EmailAddress> picked;
  for (const EmailAddress& address : some) {
    if (keys.contains(comparisonKey(address.address())) == has) picked.insert(address);
  }
  return picked;
}

bool mayEmpty(const std::set<std::string>& aliases, const std::string& words) {
  for (const std::string& alias : aliases) {
    say("alias " + alias + " would be left empty, and removed");
  }
  const std::string count = std::to_string(aliases.size());
  if (canAsk()) return confirm("Remove " + count + " aliases?");
  throw Failure(ExitCode::BadData, words, count + " aliases would be left empty",
                "nothing was changed; give --yes to remove them");
}

void requireAgreed(const std::set<std::string>& aliases, const std::set<std::string>& agreed,
                   const std::string& words) {
  if (std::includes(agreed.begin(), agreed.end(), aliases.begin(), aliases.end())) return;
  throw Failure(ExitCode::Unavailable, words,
                "somebody has changed a table since the question, and other aliases would be left"
                " empty",
                "nothing was changed; try again");
}

std::string changeLine(const AliasLook& look, const EmailAddress& alias,
                       const std::set<EmailAddress>& members) {
  const TableEntry row{alias, {members.begin(), members.end()}};
  if (look.kind == AliasLook::Kind::Absent) return "+ " + row.line();
  const std::string change = changeOf(look.row.name, look.row.text, row);
  return change.empty() ? "" : "~ " + change;
}

}  // namespace Tessel::Tool
