// The pieces of address syntax that all parsers share: characters, UTF-8, local parts, domains,
// address literals and lengths (RFC 5321 section 4.1, RFC 6531 section 3.3). Private to the address
// library. All functions are safe from any thread and throw nothing.
#ifndef TSL_ADDRESS_EMAILADDRESSGRAMMAR_H
#define TSL_ADDRESS_EMAILADDRESSGRAMMAR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "address/EmailAddressFault.h"

namespace Tessel {

// Limits in octets: RFC 5321 sections 4.5.3.1.1 and 4.5.3.1.2, RFC 1035 section 2.3.4 for a label,
// and 254 for what fits the angle brackets of a path (RFC 5321 section 4.5.3.1.3).
inline constexpr std::size_t s_emailAddressMaxLocal = 64;
inline constexpr std::size_t s_emailAddressMaxLabel = 63;
inline constexpr std::size_t s_emailAddressMaxDomain = 255;
inline constexpr std::size_t s_emailAddressMaxWhole = 254;

// Classes of ASCII characters, as bits.
enum EmailAddressClass : std::uint8_t {
  s_atext = 1,       // Characters of an atom (RFC 5322 section 3.2.3).
  s_labelText = 2,   // Characters of a domain label: letters, digits, hyphen, underscore.
  s_printable = 4,   // Visible characters and the blank.
  s_literalText = 8  // Characters of an address literal's content.
};

inline constexpr std::array<std::uint8_t, 256> s_emailAddressClasses = [] {
  std::array<std::uint8_t, 256> classes{};
  for (unsigned c = 0x20; c < 0x7f; ++c) {
    const bool alphanumeric =
        (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    constexpr std::string_view s_atomSpecials = "!#$%&'*+-/=?^_`{|}~";
    const bool isAtext =
        alphanumeric || s_atomSpecials.find(static_cast<char>(c)) != std::string_view::npos;
    const bool isLabelText = alphanumeric || c == '-' || c == '_';
    const bool isLiteralText = c > 0x20 && (c < '[' || c > ']');
    classes[c] = static_cast<std::uint8_t>(s_printable | (isAtext ? s_atext : 0) |
                                           (isLabelText ? s_labelText : 0) |
                                           (isLiteralText ? s_literalText : 0));
  }
  return classes;
}();

inline bool emailAddressIs(EmailAddressClass wanted, char character) noexcept {
  return (s_emailAddressClasses[static_cast<unsigned char>(character)] & wanted) != 0;
}

// First place from `place` on whose character is not in the class, or `end`.
inline const char* emailAddressSkip(EmailAddressClass wanted, const char* place,
                                    const char* end) noexcept {
  while (place != end && emailAddressIs(wanted, *place)) ++place;
  return place;
}

// Length of the character at `place`: 1 for printable ASCII and the blank, 2 to 4 for well-formed
// UTF-8 (RFC 3629 section 4), 0 for control characters (U+0080 to U+009F too) and ill-formed bytes.
// Requires: `place` is before `end`.
std::size_t emailAddressCharacterLength(const char* place, const char* end) noexcept;

// First place from `place` on that does not belong to an atom (RFC 5322 section 3.2.3 with the
// UTF-8 of RFC 6532), or `end`.
const char* emailAddressSkipAtom(const char* place, const char* end) noexcept;

// The fault of the character at `place` where it is not allowed: `control`, `utf8` or `other`,
// which are reasons as in a fault.
EmailAddressFault emailAddressCharacterFault(const char* place, const char* end,
                                             const char* control, const char* utf8,
                                             const char* other) noexcept;

// Fault of `domain`, a domain or an address literal in brackets, or none.
EmailAddressFault emailAddressDomainFault(std::string_view domain) noexcept;

// Fault of the lengths of an address, or none; `local` is the length as written.
EmailAddressFault emailAddressLengthFault(std::size_t local, std::size_t domain,
                                          bool hasDomain) noexcept;

// Length of `local`, a local part without quotes, as it is written: quoted unless it is a
// dot-string.
std::size_t emailAddressWrittenLocalSize(std::string_view local) noexcept;

// Writes it so to `text` and returns the place behind it. Requires: room for the length above.
char* emailAddressWriteLocal(std::string_view local, char* text) noexcept;

}  // namespace Tessel

#endif
