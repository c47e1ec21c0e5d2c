// Quick reading of the texts that nearly all rows hold.
#include "tables/PlainAddresses.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tessel::Tool {

namespace {

// Limits in octets, see EmailAddress.
constexpr std::size_t s_maxLocal = 64;
constexpr std::size_t s_maxLabel = 63;
constexpr std::size_t s_maxAddress = 254;

// What a character may be part of.
enum Role : std::uint8_t { InLocal = 1, InLabel = 2, Hyphen = 4 };

constexpr std::array<std::uint8_t, 256> s_makeRoles() {
  std::array<std::uint8_t, 256> roles{};
  for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                       "0123456789_")) {
    roles.at(static_cast<unsigned char>(c)) = InLocal | InLabel;
  }
  for (const char c : std::string_view("!#$%&'*+/=?^`{|}~")) {
    roles.at(static_cast<unsigned char>(c)) = InLocal;
  }
  roles.at('-') = InLocal | InLabel | Hyphen;
  return roles;
}

constexpr std::array<std::uint8_t, 256> s_roles = s_makeRoles();

bool s_has(char c, unsigned role) {
  return (s_roles[static_cast<unsigned char>(c)] & role) != 0;
}

// The length of the words of characters with `role`, joined by ".", that `text` begins with; 0 when
// one of them is empty. `isLabel` asks of each what a label of a domain must be.
std::size_t s_words(std::string_view text, unsigned role, bool isLabel) {
  std::size_t start = 0;
  while (true) {
    std::size_t end = start;
    while (end < text.size() && s_has(text[end], role)) ++end;
    if (end == start) return 0;
    if (isLabel &&
        (end - start > s_maxLabel || s_has(text[start], Hyphen) || s_has(text[end - 1], Hyphen))) {
      return 0;
    }
    if (end == text.size() || text[end] != '.') return end;
    start = end + 1;
  }
}

// The length of the plain address that `text` begins with; 0 when there is none.
std::size_t s_address(std::string_view text) {
  const std::size_t local = s_words(text, InLocal, false);
  if (local == 0 || local > s_maxLocal || local == text.size() || text[local] != '@') return 0;
  const std::size_t domain = s_words(text.substr(local + 1), InLabel, true);
  const std::size_t size = local + 1 + domain;
  return domain == 0 || size > s_maxAddress ? 0 : size;
}

}  // namespace

bool isPlain(std::string_view text) {
  return !text.empty() && s_address(text) == text.size();
}

bool splitPlain(std::string_view text, std::vector<std::string_view>& addresses) {
  addresses.clear();
  while (true) {
    const std::size_t size = s_address(text);
    if (size == 0) return false;
    addresses.push_back(text.substr(0, size));
    if (size == text.size()) return true;
    if (text[size] != ',') return false;
    text.remove_prefix(size + 1);
  }
}

}  // namespace Tessel::Tool
