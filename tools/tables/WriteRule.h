// What the tool does not write into a table, although the library would take it.
#ifndef TSL_TOOLS_TABLES_WRITERULE_H
#define TSL_TOOLS_TABLES_WRITERULE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"

namespace Tessel::Tool {

// Whether members may be names without a domain, such as "root".
enum class LocalNames { Refuse, Allow };
constexpr LocalNames localNamesOf(bool areAllowed) {
  return areAllowed ? LocalNames::Allow : LocalNames::Refuse;
}

// True when `member` is the all-users marker of `alias`. The library compares the text, so a marker
// that needs quotes has no effect.
bool isMarkerOf(const EmailAddress& member, const EmailAddress& alias);

// True when the text of an address, as EmailAddress::address() gives it, has an address literal
// (RFC 5321, 4.1.3) with a comma in it. A mail server that splits an answer at commas would take
// its parts for addresses.
bool hasCommaInLiteral(std::string_view address);

// Why `address` must not be written; nothing when it may.
std::optional<std::string> refusalOf(const EmailAddress& address);
// The same for a member of `alias`: a mail server would give its own domain to a name without one,
// and deliver to whoever has that name.
std::optional<std::string> refusalOfMember(const EmailAddress& member, const EmailAddress& alias,
                                           LocalNames localNames);

// The same for the all-users marker among `members` of `alias`, which has an effect only alone.
std::optional<std::string> refusalOfMarker(const std::vector<EmailAddress>& members,
                                           const EmailAddress& alias);

}  // namespace Tessel::Tool

#endif
