// Bytes of texts: parts of UTF-8 characters (RFC 3629), and hexadecimal digits.
#ifndef TSL_BASE_BYTES_H
#define TSL_BASE_BYTES_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Tessel {

// True for a byte of a UTF-8 character that is not its first.
constexpr bool isUtf8Continuation(char byte) noexcept {
  return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

// The longest start of `text` that has at most `most` bytes and ends in no UTF-8 character.
constexpr std::string_view cutUtf8(std::string_view text, std::size_t most) noexcept {
  if (text.size() <= most) return text;
  while (most > 0 && isUtf8Continuation(text[most])) --most;
  return text.substr(0, most);
}

// Appends the two hexadecimal digits of `byte`, in small letters.
inline void appendHex(std::string& text, char byte) {
  constexpr std::string_view digits = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  text += digits[value >> 4U];
  text += digits[value & 0xfU];
}

// Appends `byte` as "\xNN", for texts that people see.
inline void appendEscaped(std::string& text, char byte) {
  text += "\\x";
  appendHex(text, byte);
}

}  // namespace Tessel

#endif
