// Address extensions.
#include "tables/Extension.h"

#include <algorithm>

#include "address/EmailAddress.h"
#include "address/EmailAddressGrammar.h"
#include "base/Exception.h"
#include "base/stringCompareNoCase.h"
#include "tables/AddressKey.h"

namespace Tessel::Tool {

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

// True if `extension` can be put to an address without quotes that stays short enough: then there
// is no need to parse it.
bool s_isPlain(std::string_view extension) {
  static constexpr std::string_view s_plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-_=";
  return extension.find_first_not_of(s_plain) == std::string_view::npos;
}

// Appends `address` with `extension`, a plain one; false when it is not that simple.
bool s_appendPlain(std::string& out, std::string_view address, std::string_view extension,
                   std::string_view delimiters) {
  const std::size_t at = address.find('@');
  if (at == 0 || at == std::string_view::npos || address.front() == '"') return false;
  if (at + extension.size() > s_emailAddressMaxLocal) return false;
  if (address.size() + extension.size() > s_emailAddressMaxWhole) return false;
  if (address.find_first_of(delimiters) < at) return false;
  out.append(address.substr(0, at)).append(extension).append(address.substr(at));
  return true;
}

// Where the address ends that `list` begins with. A "," in a quoted string or in an address literal
// (RFC 5321, 4.1.2 and 4.1.3) belongs to the address.
std::size_t s_endOfFirst(std::string_view list) {
  bool isQuoted = false;
  bool isLiteral = false;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const char c = list[i];
    if (c == '\\') {
      ++i;
    } else if (c == '"' && !isLiteral) {
      isQuoted = !isQuoted;
    } else if (!isQuoted && (c == '[' || c == ']')) {
      isLiteral = c == '[';
    } else if (c == ',' && !isQuoted && !isLiteral) {
      return i;
    }
  }
  return list.size();
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

std::string withoutExtension(std::string_view text) {
  // Most addresses have none.
  if (text.find_first_of(s_delimiters) == std::string_view::npos) return "";
  const ExtendedAddress address = cutExtension(text, s_delimiters);
  return address.extension.empty() ? "" : address.base;
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

std::string allWithExtension(std::string_view list, std::string_view extension,
                             std::string_view delimiters) {
  if (extension.empty()) return std::string(list);
  const bool isPlain = s_isPlain(extension);
  std::string extended;
  extended.reserve(2 * list.size());
  while (!list.empty()) {
    const std::size_t end = s_endOfFirst(list);
    const std::string_view address = list.substr(0, end);
    if (!extended.empty()) extended += ',';
    if (!isPlain || !s_appendPlain(extended, address, extension, delimiters)) {
      extended += withExtension(std::string(address), extension, delimiters);
    }
    list.remove_prefix(std::min(list.size(), end + 1));
  }
  return extended;
}

}  // namespace Tessel::Tool
