// What the commands that change rows of an alias table have in common.
#include "cli/AliasEdit.h"

#include <algorithm>

#include "cli/AddressInput.h"
#include "cli/RowReport.h"
#include "tables/AliasCycles.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

EmailAddress s_parseMember(const std::string& text, const EmailAddress& alias,
                           LocalNames localNames) {
  EmailAddress member = parseAddress(text, true);
  const auto why = refusalOfMember(member, alias, localNames);
  if (!why) return member;
  throw Failure(ExitCode::BadData, "alias " + alias.address(), *why,
                "write it as NAME@DOMAIN, or use 'allusers_" + alias.domain() +
                    "' for all user mailboxes of the domain");
}

}  // namespace

std::set<EmailAddress> parseMembers(const std::vector<std::string>& texts,
                                    const EmailAddress& alias, LocalNames localNames) {
  if (const auto why = refusalOf(alias)) {
    throw Failure(ExitCode::BadData, "alias '" + alias.address() + "'", *why,
                  "write the literal without it");
  }
  std::set<EmailAddress> members;
  for (const std::string& text : texts) members.insert(s_parseMember(text, alias, localNames));
  return members;
}

void warnOfMixedMarker(const std::set<EmailAddress>& members, const EmailAddress& alias) {
  const bool marker = std::any_of(members.begin(), members.end(), [&](const EmailAddress& member) {
    return isMarkerOf(member, alias);
  });
  if (!marker || members.size() == 1) return;
  say("warning: 'allusers_" + alias.domain() +
      "' means all users only when it is the only member; among others it is taken for an"
      " address");
}

AliasLook lookToEdit(AliasTable& table, const EmailAddress& alias, const Session& session,
                     bool dryRun) {
  AliasLook look = dryRun ? table.look(alias) : table.lookLocked(alias);
  if (look.kind != AliasLook::Kind::Other) return look;
  throw Failure(ExitCode::BadData, "alias " + alias.address(),
                "the server takes it for the alias '" + look.row.name + "' of table " +
                    aliasTableName(session.tableName()) +
                    ", which is spelled differently (the same characters in another encoding,"
                    " perhaps)",
                "use the spelling of that alias, or remove that alias first");
}

void refuseCycle(AliasTable& table, const EmailAddress& alias,
                 const std::set<EmailAddress>& members, const std::set<EmailAddress>& added) {
  const auto cycle = cycleOf(table, alias, {members, added});
  if (!cycle) return;
  if (!cycle->isNew) {
    return say("warning: alias " + alias.address() +
               " is in an alias loop already: " + textOf(cycle->path));
  }
  throw Failure(ExitCode::BadData, "alias " + alias.address(),
                "it would lead back to itself: " + textOf(cycle->path),
                "nothing was changed; leave one of these members out, or give --allow-cycle");
}

std::set<EmailAddress> pickMembers(const std::set<EmailAddress>& some,
                                   const std::set<EmailAddress>& members, bool has) {
  std::set<EmailAddress> picked;
  for (const EmailAddress& address : some) {
    if ((members.count(address) != 0) == has) picked.insert(address);
  }
  return picked;
}

std::string changeLine(const char* sign, const EmailAddress& alias,
                       const std::set<EmailAddress>& members) {
  return std::string(sign) + " " + alias.address() + ":" + joined(members);
}

}  // namespace Tessel::Tool
