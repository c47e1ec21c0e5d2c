// Fuzz target of members texts, as rows and alias files hold them: what is accepted is written back
// in one spelling, which is read as the same set. The input is the text.
#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "address/EmailAddress.h"
#include "alias/AddressAliasDbMySQL.h"
#include "fuzz/Fuzz.h"

using Tessel::AddressAliasDbMySQL;
using Tessel::EmailAddress;
using Tessel::Fuzz::asText;
using Tessel::Fuzz::hasControls;
using Tessel::Fuzz::outcomeOf;
using Tessel::Fuzz::require;

namespace {

using Members = std::set<EmailAddress>;

Members s_read(std::string_view text) {
  return EmailAddress::rfc5322ParseSet(text, true, false);
}

std::string s_written(const Members& members) {
  std::ostringstream text;
  AddressAliasDbMySQL::writeMemberSet(members, text);
  return text.str();
}

std::string_view s_trimmed(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\r");
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(" \t\r") + 1 - start);
}

void s_checkMembers(const Members& members) {
  std::string joined;
  for (const EmailAddress& member : members) {
    const std::string text = member.address();
    require(!member.isNull() && !text.empty(), "no null address among members", text);
    require(text.size() <= 254 && !hasControls(text), "a member is short and clean", text);
    require(s_read(text) == Members{member}, "a member alone is a members text", text);
    joined += (joined.empty() ? "" : ",") + text;
  }
  const std::string written = s_written(members);
  require(written == joined, "members are joined by commas in their order", written);
  const Members again = s_read(written);
  require(again == members, "what is written is read as the same set", written);
  require(s_written(again) == written, "and has one spelling", written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input = asText(data, size);
  const auto members = outcomeOf([&] { return s_read(input); });
  const std::string_view text = input.substr(0, input.find('\0'));
  require(outcomeOf([&] { return s_read(text); }) == members, "the text ends at a NUL", text);
  if (members.value) s_checkMembers(*members.value);
  // A line feed folds the text only where a blank follows it.
  if (text.find('\n') != std::string_view::npos) return 0;
  const std::string trimmed(s_trimmed(text));
  require(outcomeOf([&] { return s_read(trimmed); }).value == members.value,
          "blanks around the text do not matter", text);
  if (!members.value) return 0;
  require(s_read("," + trimmed + ",,") == *members.value, "empty items do not matter", text);
  require(s_read(trimmed + "," + trimmed) == *members.value, "nobody is a member twice", text);
  return 0;
}
