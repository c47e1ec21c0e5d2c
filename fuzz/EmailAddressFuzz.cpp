// Fuzz target of the address parsers: nothing but `Exception` leaves them, and every address that
// they accept can be written and read back unchanged. The first byte of an input holds the flags,
// the rest is the text.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "address/EmailAddress.h"
#include "fuzz/Fuzz.h"

using Tessel::EmailAddress;
using Tessel::Fuzz::asText;
using Tessel::Fuzz::outcomeOf;
using Tessel::Fuzz::require;

namespace {

bool s_isSame(const EmailAddress& a, const EmailAddress& b) {
  return a == b && !(a < b) && !(b < a) && a.local() == b.local() && a.domain() == b.domain();
}

// Every quote in the literal has a backslash before it, and none is left open.
bool s_isSafeLiteral(std::string_view escaped) {
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] == '\'' || escaped[i] == '"') return false;
    if (escaped[i] == '\\' && ++i == escaped.size()) return false;
  }
  return true;
}

void s_checkAddress(const EmailAddress& address) {
  const std::string text = address.address();
  const bool noDomain = address.domain().empty();
  require(address.isNull() == text.empty(), "only the null address has no text", text);
  require(text.size() <= 254, "the text is within the limit", text);
  require(s_isSame(address, EmailAddress::rfc5321Parse(text, noDomain)), "RFC 5321 round trip",
          text);
  require(s_isSame(address, EmailAddress::rfc5322Parse(text, noDomain)), "RFC 5322 round trip",
          text);
  require(s_isSame(address, EmailAddress::create(address.local(), address.domain(), noDomain)),
          "create from the parts", text);
  require(s_isSafeLiteral(emailAddressEscapedWrite(address)), "escaped text", text);
}

void s_checkSet(const std::set<EmailAddress>& addresses) {
  std::string members;
  for (const EmailAddress& address : addresses) {
    s_checkAddress(address);
    require(!address.isNull(), "no null address in a set", members);
    if (!members.empty()) members += ',';
    members += address.address();
  }
  require(EmailAddress::rfc5322ParseSet(members, true, false) == addresses, "members round trip",
          members);
}

template <class Parse, class Check>
void s_ifAccepted(const Parse& parse, const Check& check) {
  const auto outcome = outcomeOf(parse);
  if (outcome.value) check(*outcome.value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool allowNoDomain = (data[0] & 1U) != 0;
  const bool allowGroups = (data[0] & 2U) != 0;
  const std::string_view text = asText(data, size).substr(1);
  const std::string_view half = text.substr(0, text.size() / 2);
  s_ifAccepted([&] { return EmailAddress::rfc5321Parse(text, allowNoDomain); }, s_checkAddress);
  s_ifAccepted([&] { return EmailAddress::rfc5322Parse(text, allowNoDomain); }, s_checkAddress);
  s_ifAccepted([&] { return EmailAddress::rfc5322ParseSet(text, allowNoDomain, allowGroups); },
               s_checkSet);
  s_ifAccepted([&] { return EmailAddress::create(half, text.substr(half.size()), allowNoDomain); },
               s_checkAddress);
  return 0;
}
