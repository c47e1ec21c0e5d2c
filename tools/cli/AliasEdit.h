// What the commands that change rows of an alias table have in common: the arguments, and what they
// refuse to write.
#ifndef TSL_TOOLS_CLI_ALIASEDIT_H
#define TSL_TOOLS_CLI_ALIASEDIT_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "cli/Command.h"
#include "cli/Session.h"
#include "tables/AliasTable.h"
#include "tables/WriteRule.h"

namespace Tessel::Tool {

// The members of `alias` that the arguments `texts` are, "-" being standard input with one per
// line. There is at least one. Throws Failure, `BadData`, for what is not an address, and for what
// is not to be written, see WriteRule.h.
std::set<EmailAddress> parseMembers(const std::vector<std::string>& texts,
                                    const EmailAddress& alias, LocalNames localNames);

// Refuses what is not to be written as `alias` with `members`, see WriteRule.h. Throws Failure,
// `BadData`.
void requireWritable(const EmailAddress& alias, const std::set<EmailAddress>& members,
                     LocalNames localNames);

// Warns when `alias` looks like one for a whole domain.
void warnOfWildcard(const EmailAddress& alias);

// Whether an alias may get a row of its own next to one of another spelling.
enum class NewSpelling { Refuse, Allow };

NewSpelling newSpellingOf(bool isAllowed);
// The option that allows it.
void addNewSpelling(Command& command, bool& isAllowed);

// The row of `alias` that is about to be written, locked unless `dryRun`. Refuses a second
// spelling, unless `newSpelling` allows it, and to touch the row of another address that the server
// considers equal. Throws Failure, `BadData`.
AliasLook lookToWrite(AliasTable& table, const EmailAddress& alias, const Session& session,
                      bool dryRun, NewSpelling newSpelling);

// The row of `alias` from which something is about to be removed, likewise; it may have another
// spelling.
AliasLook lookToRemove(AliasTable& table, const EmailAddress& alias, const Session& session,
                       bool dryRun);

// The address without its extension when `look` found no row for `address`, and there is one for
// that, which `look` becomes; reports it. Mail servers get that row from the service.
std::optional<EmailAddress> baseOf(AliasTable& table, const EmailAddress& address, AliasLook& look);

// Reports that the row of `alias` has another spelling, if that is so.
void tellSpelling(const EmailAddress& alias, const AliasLook& look);

// Refuses `members`, in place of `before`, when a new one leads back to `alias`, unless
// `allowCycle`, or an all-users marker would be taken for an address, by `alias` or one above it;
// warns when that is so already. Throws Failure, `BadData`.
void refuseHarm(AliasTable& table, const EmailAddress& alias, const std::set<EmailAddress>& members,
                const std::set<EmailAddress>& before, bool allowCycle);

// The addresses of `some` that are not in `members` in any spelling, or, with `has`, those that
// are.
std::set<EmailAddress> pickMembers(const std::set<EmailAddress>& some,
                                   const std::set<EmailAddress>& members, bool has);

// Asks whether `aliases`, of which the command `words` would leave nothing, may go. False when the
// answer is no. Throws Failure when there is nobody to ask.
bool mayEmpty(const std::set<std::string>& aliases, const std::string& words);
// Refuses to empty `aliases` if not all of them are among the `agreed` ones: somebody has changed a
// table since the question. Throws Failure, `Unavailable`.
void requireAgreed(const std::set<std::string>& aliases, const std::set<std::string>& agreed,
                   const std::string& words);

// What becomes of the row that `look` has found, as --dry-run shows it: "+ ALIAS:MEMBERS" where
// there is none, otherwise "~ " and changeOf(); empty when nothing changes.
std::string changeLine(const AliasLook& look, const EmailAddress& alias,
                       const std::set<EmailAddress>& members);

}  // namespace Tessel::Tool

#endif
