// Escaping of text for a single-quoted SQL literal: for the address library, and for the statements
// that the tool writes itself. Not installed.
#ifndef TSL_ADDRESS_EMAILADDRESSESCAPE_H
#define TSL_ADDRESS_EMAILADDRESSESCAPE_H

#include <algorithm>
#include <string>

namespace Tessel {

// The letter after the backslash for `character` in an SQL literal, as the MySQL client library
// writes it; NUL when the character is not escaped. No byte of a multi-byte UTF-8
// character is ever escaped.
constexpr char emailAddressEscapeLetter(char character) noexcept {
  switch (character) {
    case '\'':
    case '"':
    case '\\':
      return character;
    case '\0':
      return '0';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\x1a':
      return 'Z';
    default:
      return '\0';
  }
}

// `text`, in UTF-8, escaped for a literal in single or double quotes under an SQL mode with
// backslash escapes. Any thread.
inline std::string emailAddressEscape(std::string text) {
  const bool isSafe = std::none_of(text.begin(), text.end(), [](char character) {
    return emailAddressEscapeLetter(character) != '\0';
  });
  if (isSafe) return text;
  std::string escaped;
  escaped.reserve(text.size());
  for (const char character : text) {
    const char letter = emailAddressEscapeLetter(character);
    if (letter != '\0') escaped += '\\';
    escaped += letter != '\0' ? letter : character;
  }
  return escaped;
}

}  // namespace Tessel

#endif
