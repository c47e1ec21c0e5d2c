// Address extensions: the "+tag" of "user+tag@domain" (RFC 5233 calls it the detail).
#ifndef TSL_TOOLS_TABLES_EXTENSION_H
#define TSL_TOOLS_TABLES_EXTENSION_H

#include <string>
#include <string_view>

namespace Tessel::Tool {

// An address cut at its extension.
struct ExtendedAddress {
  std::string base;       // The address without the extension.
  std::string extension;  // With its delimiter; empty when there is none.
};

// Cuts the address `text` at the first of `delimiters` in its local part. Quoted local parts have
// no extension, and the base keeps at least one character. With the delimiter "-", "owner-list" and
// "list-request" are names without an extension. Any thread.
ExtendedAddress cutExtension(std::string_view text, std::string_view delimiters);

// With what extensions begin, unless the mail server has other settings.
inline constexpr std::string_view s_delimiters = "+";

// The address `text` without its extension, by `s_delimiters`; empty when it has none.
std::string withoutExtension(std::string_view text);

// `address` with `extension` at the end of its local part. Unchanged if it has an extension of its
// own or no domain, or would become too long or need quotes, in which no extension is found again.
// `address` is as EmailAddress::address() gives it. Any thread.
std::string withExtension(const std::string& address, std::string_view extension,
                          std::string_view delimiters);

// The same for each address of `list`, which are joined by ",".
std::string allWithExtension(std::string_view list, std::string_view extension,
                             std::string_view delimiters);

}  // namespace Tessel::Tool

#endif
