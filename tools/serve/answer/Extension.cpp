// Address extensions.
#include "serve/answer/Extension.h"

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "base/stringCompareNoCase.h"
#include "serve/image/AddressKey.h"

namespace Tessel::Serve {

namespace {

// Names of mailing lists that have a "-" in them.
bool s_isListName(std::string_view local) {
  static constexpr std::string_view s_owner = "owner-";
  static constexpr std::string_view s_request = "-request";
  if (local.size() > s_owner.size() &&
      stringCompareNoCase(local.substr(0, s_owner.size()), s_owner, 0)) {
    return true;
  }
  return local.size() > s_request.size() &&
         stringCompareNoCase(local.substr(local.size() - s_request.size()), s_request, 0);
}

// Where the extension of `local` starts; npos when it has none.
std::size_t s_start(std::string_view local, std::string_view delimiters) {
  if (local.empty() || local.front() == '"') return std::string_view::npos;
  const std::size_t start = local.find_first_of(delimiters, 1);
  const bool isList = start != std::string_view::npos && local[start] == '-' && s_isListName(local);
  return isList ? std::string_view::npos : start;
}

}  // namespace

ExtendedAddress cutExtension(std::string_view text, std::string_view delimiters) {
  std::string_view local;
  std::string_view domain;
  if (!splitAddress(text, local, domain)) return {std::string(text), ""};
  const std::size_t start = s_start(local, delimiters);
  if (start == std::string_view::npos) return {std::string(text), ""};
  return {std::string(local.substr(0, start)).append("@").append(domain),
          std::string(local.substr(start))};
}

std::string withExtension(const std::string& address, std::string_view extension,
                          std::string_view delimiters) {
  if (extension.empty() || !cutExtension(address, delimiters).extension.empty()) return address;
  try {
    const EmailAddress parsed = EmailAddress::rfc5321Parse(address, false);
    const std::string extended =
        EmailAddress::create(parsed.local().append(extension), parsed.domain(), false).address();
    return extended.front() == '"' && address.front() != '"' ? address : extended;
  } catch (const Exception&) {
    return address;
  }
}

}  // namespace Tessel::Serve
