// Bytes of texts: parts of UTF-8 characters (RFC 3629), hexadecimal digits, and random ones.
#ifndef TSL_BASE_BYTES_H
#define TSL_BASE_BYTES_H

#include <sys/random.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

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

// `count` bytes that nobody can guess, at most 256, in hexadecimal digits. Throws std::system_error
// when the system has none.
inline std::string randomHex(std::size_t count) {
  std::string bytes(count, '\0');
  if (getrandom(bytes.data(), count, 0) == -1) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  std::string text;
  for (const char byte : bytes) appendHex(text, byte);
  return text;
}

// Appends `byte` as "\xNN", for texts that people see.
inline void appendEscaped(std::string& text, char byte) {
  text += "\\x";
  appendHex(text, byte);
}

}  // namespace Tessel

#endif
