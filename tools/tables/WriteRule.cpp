// What the tool does not write into a table.
#include "tables/WriteRule.h"

#include <algorithm>

#include "base/stringCompareNoCase.h"

namespace Tessel::Tool {

bool isMarkerOf(const EmailAddress& member, const EmailAddress& alias) {
  return stringCompareNoCase(member.address(), "allusers_" + alias.domain(), 0);
}

bool hasCommaInLiteral(std::string_view address) {
  // A literal has no "[" inside.
  const std::size_t start = address.rfind('[');
  return address.ends_with(']') && start != std::string_view::npos &&
         address.find(',', start) != std::string_view::npos;
}

std::optional<std::string> refusalOf(const EmailAddress& address) {
  if (!hasCommaInLiteral(address.address())) return std::nullopt;
  return "the address literal of '" + address.address() +
         "' has a comma, at which mail servers would cut it";
}

std::optional<std::string> refusalOfMember(const EmailAddress& member, const EmailAddress& alias,
                                           LocalNames localNames) {
  const bool isAllowed = !member.domain().empty() || isMarkerOf(member, alias);
  if (isAllowed || localNames == LocalNames::Allow) return refusalOf(member);
  return "the member '" + member.address() +
         "' has no domain, and it is not the all-users marker of this alias (that of another"
         " domain has no effect)";
}

std::optional<std::string> refusalOfMarker(const std::vector<EmailAddress>& members,
                                           const EmailAddress& alias) {
  const bool isAlone = members.size() < 2;
  const auto isMarker = [&](const EmailAddress& member) { return isMarkerOf(member, alias); };
  if (isAlone || std::none_of(members.begin(), members.end(), isMarker)) return std::nullopt;
  return "'allusers_" + alias.domain() +
         "' means all users only when it is the only member; among others it is taken for an"
         " address, and mail waits";
}

}  // namespace Tessel::Tool
