// The mail users that the commands write.
#include "tables/UserNames.h"

#include <array>
#include <string_view>

#include "base/Exception.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

namespace {

struct KindName {
  std::string_view name;
  std::string_view number;
  CMF::MailUserKind kind;
};

constexpr std::array<KindName, 3> s_kinds = {{{"disabled", "0", CMF::MailUserDisabled},
                                              {"user", "1", CMF::MailUserMailbox},
                                              {"shared", "2", CMF::MailUserShared}}};

// The address as the library makes it when it lists all users of a domain.
bool s_isListable(const EmailAddress& address) {
  try {
    return EmailAddress::rfc5322Parse(address.local() + "@" + address.domain(), true) == address;
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace

std::optional<CMF::MailUserKind> userKindOf(const std::string& text) {
  for (const KindName& known : s_kinds) {
    if (text == known.name || text == known.number) return known.kind;
  }
  return std::nullopt;
}

CMF::MailUserKind parseUserKind(const std::string& text) {
  if (const auto kind = userKindOf(text)) return *kind;
  throw Failure(ExitCode::Usage, "--kind " + text, "there is no such kind of mail user",
                "use user (1), disabled (0) or shared (2)");
}

std::string userKindText(std::int32_t kind) {
  for (const KindName& known : s_kinds) {
    if (known.kind == kind) return std::string(known.name);
  }
  return std::to_string(kind);
}

std::string userFault(const EmailAddress& address) {
  if (s_isListable(address)) return "";
  return "a user name that needs quotes cannot be stored: the all-users alias of the whole domain"
         " would stop working";
}

const char* userResultText(CMF::Writer::UserResult result) {
  switch (result) {
    case CMF::Writer::UserResult::Added:
      return "added";
    case CMF::Writer::UserResult::Changed:
      return "changed";
    case CMF::Writer::UserResult::Unchanged:
      return "unchanged";
  }
  return "";
}

}  // namespace Tessel::Tool
