// What the commands that change rows of an alias table have in common: the arguments, and what they
// refuse to write.
#ifndef TSL_TOOLS_CLI_ALIASEDIT_H
#define TSL_TOOLS_CLI_ALIASEDIT_H

#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "cli/Session.h"
#include "tables/AliasTable.h"
#include "tables/WriteRule.h"

namespace Tessel::Tool {

// The members of `alias` that the arguments `texts` are. Throws Failure, `BadData`, for what is not
// an address, and for what is not to be written, see WriteRule.h.
std::set<EmailAddress> parseMembers(const std::vector<std::string>& texts,
                                    const EmailAddress& alias, LocalNames localNames);

// Warns when the all-users marker of `alias` has other members next to it.
void warnOfMixedMarker(const std::set<EmailAddress>& members, const EmailAddress& alias);

// The row of `alias` that is about to change, locked unless `dryRun`. Refuses to touch that of
// another address that the server considers equal.
AliasLook lookToEdit(AliasTable& table, const EmailAddress& alias, const Session& session,
                     bool dryRun);

// Refuses `members` when one of `added`, those that are not there yet, leads back to `alias`, and
// warns when `alias` is in an alias loop already. Throws Failure, `BadData`.
void refuseCycle(AliasTable& table, const EmailAddress& alias,
                 const std::set<EmailAddress>& members, const std::set<EmailAddress>& added);

// The addresses of `some` that are not in `members`, or, with `has`, those that are.
std::set<EmailAddress> pickMembers(const std::set<EmailAddress>& some,
                                   const std::set<EmailAddress>& members, bool has);

// "`alias`:`members`", as table files have it, with `sign` and a blank before.
std::string changeLine(const char* sign, const EmailAddress& alias,
                       const std::set<EmailAddress>& members);

}  // namespace Tessel::Tool

#endif
