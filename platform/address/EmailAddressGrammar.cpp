// Characters, UTF-8, domains and address literals, and the quoting of local parts.
#include "address/EmailAddressGrammar.h"

#include <algorithm>

#include "base/bytes.h"

namespace Tessel {

namespace {

bool s_isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool s_isHexDigit(char c) {
  return s_isDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

bool s_isAlphanumeric(char c) {
  return s_isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Least and greatest second byte after a UTF-8 lead byte. The bounds leave out overlong forms,
// surrogates, what lies above U+10FFFF, and the control characters U+0080 to U+009F.
struct SecondByte {
  unsigned least;
  unsigned greatest;
};

SecondByte s_secondByte(unsigned lead) {
  switch (lead) {
    case 0xc2:
    case 0xe0:
      return {0xa0, 0xbf};
    case 0xed:
      return {0x80, 0x9f};
    case 0xf0:
      return {0x90, 0xbf};
    case 0xf4:
      return {0x80, 0x8f};
    default:
      return {0x80, 0xbf};
  }
}

// Fault of one label of a domain, or none.
EmailAddressFault s_labelFault(const char* label, const char* labelEnd) {
  if (static_cast<std::size_t>(labelEnd - label) > s_emailAddressMaxLabel) {
    return {"A label of the domain is longer than 63 octets", label};
  }
  if (*label == '-') return {"A label of the domain begins with a hyphen", label};
  if (labelEnd[-1] == '-') return {"A label of the domain ends with a hyphen", label};
  return {};
}

const char* s_skipLabel(const char* place, const char* end) {
  for (;;) {
    place = emailAddressSkip(s_labelText, place, end);
    if (place == end || static_cast<unsigned char>(*place) < 0x80) return place;
    const std::size_t length = emailAddressCharacterLength(place, end);
    if (length == 0) return place;
    place += length;
  }
}

EmailAddressFault s_domainCharacterFault(const char* place, const char* end) {
  if (*place == '@') return {"A second \"@\" outside quotes", place};
  return emailAddressCharacterFault(place, end, "A control character in the domain",
                                    "Invalid UTF-8 in the domain",
                                    "Character % is not allowed in the domain");
}

// Four decimal numbers up to 255 with dots between them.
bool s_isIpv4(std::string_view text) {
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (text.empty() || text.front() != '.') return false;
      text.remove_prefix(1);
    }
    std::size_t digits = 0;
    int number = 0;
    while (digits < text.size() && digits < 3 && s_isDigit(text[digits])) {
      number = number * 10 + (text[digits++] - '0');
    }
    if (digits == 0 || number > 255) return false;
    text.remove_prefix(digits);
  }
  return text.empty();
}

// Groups on one side of "::", or those of the whole address.
struct Ipv6Groups {
  bool valid = true;
  bool endsWithIpv4 = false;
  int count = 0;  // An IPv4 tail counts as two.
};

// Reads hexadecimal groups with colons between them, the last of which may be an IPv4 address.
// Nothing at all is no groups.
Ipv6Groups s_readIpv6Groups(std::string_view text) {
  Ipv6Groups groups;
  while (!text.empty()) {
    const std::size_t size = std::min(text.find(':'), text.size());
    const std::string_view group = text.substr(0, size);
    const bool isLast = size == text.size();
    if (isLast && group.find('.') != std::string_view::npos) {
      groups.valid = s_isIpv4(group);
      groups.endsWithIpv4 = true;
      groups.count += 2;
      return groups;
    }
    const bool isGroup = !group.empty() && group.size() <= 4 &&
                         std::all_of(group.begin(), group.end(), s_isHexDigit);
    // A colon must be followed by another group.
    if (!isGroup || size + 1 == text.size()) return {false, false, 0};
    ++groups.count;
    if (isLast) return groups;
    text.remove_prefix(size + 1);
  }
  return groups;
}

// RFC 5321 section 4.1.3: "::" represents at least two groups.
bool s_isIpv6(std::string_view text) {
  const std::size_t gap = text.find("::");
  if (gap == std::string_view::npos) {
    const Ipv6Groups groups = s_readIpv6Groups(text);
    return groups.valid && groups.count == 8;
  }
  const Ipv6Groups before = s_readIpv6Groups(text.substr(0, gap));
  const Ipv6Groups after = s_readIpv6Groups(text.substr(gap + 2));
  return before.valid && !before.endsWithIpv4 && after.valid && before.count + after.count <= 6;
}

// A tag, a colon, and at least one character.
bool s_isGeneralLiteral(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size()) return false;
  const std::string_view tag = text.substr(0, colon);
  const std::string_view content = text.substr(colon + 1);
  return std::all_of(tag.begin(), tag.end(),
                     [](char c) { return s_isAlphanumeric(c) || c == '-'; }) &&
         tag.back() != '-' && std::all_of(content.begin(), content.end(), [](char c) {
           return emailAddressIs(s_literalText, c);
         });
}

bool s_hasIpv6Tag(std::string_view text) {
  constexpr std::string_view s_tag = "ipv6:";
  return text.size() >= s_tag.size() &&
         std::equal(s_tag.begin(), s_tag.end(), text.begin(), [](char wanted, char c) {
           return wanted == (c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c);
         });
}

EmailAddressFault s_literalFault(std::string_view domain) {
  const char* const start = domain.data();
  const std::size_t close = domain.find(']');
  if (close == std::string_view::npos) return {"The address literal is not closed by \"]\"", start};
  if (close + 1 < domain.size()) return {"Text after the address literal", start + close + 1};
  const std::string_view text = domain.substr(1, close - 1);
  if (s_hasIpv6Tag(text)) {
    if (s_isIpv6(text.substr(5))) return {};
    return {"The address literal is not an IPv6 address", start};
  }
  if (s_isIpv4(text) || s_isGeneralLiteral(text)) return {};
  return {"The address literal is neither an IPv4 address nor a tag with content", start};
}

bool s_isDotString(std::string_view local) {
  const char* const end = local.data() + local.size();
  for (const char* place = local.data();; ++place) {
    const char* const word = place;
    place = emailAddressSkipAtom(word, end);
    if (place == word) return false;
    if (place == end) return true;
    if (*place != '.') return false;
  }
}

bool s_needsBackslash(char c) {
  return c == '"' || c == '\\';
}

}  // namespace

std::size_t emailAddressCharacterLength(const char* place, const char* end) noexcept {
  if (emailAddressIs(s_printable, *place)) return 1;
  const unsigned lead = static_cast<unsigned char>(*place);
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (static_cast<std::size_t>(end - place) < length) return 0;
  const SecondByte bounds = s_secondByte(lead);
  const unsigned second = static_cast<unsigned char>(place[1]);
  if (second < bounds.least || second > bounds.greatest) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (!isUtf8Continuation(place[i])) return 0;
  }
  return length;
}

const char* emailAddressSkipAtom(const char* place, const char* end) noexcept {
  for (;;) {
    place = emailAddressSkip(s_atext, place, end);
    if (place == end || static_cast<unsigned char>(*place) < 0x80) return place;
    const std::size_t length = emailAddressCharacterLength(place, end);
    if (length == 0) return place;
    place += length;
  }
}

EmailAddressFault emailAddressCharacterFault(const char* place, const char* end,
                                             const char* control, const char* utf8,
                                             const char* other) noexcept {
  const auto byte = static_cast<unsigned char>(*place);
  if (byte < 0x20 || byte == 0x7f) return {control, place};
  if (byte < 0x80 || emailAddressCharacterLength(place, end) > 0) return {other, place, *place};
  const bool isC1 =
      byte == 0xc2 && end - place > 1 && (static_cast<unsigned char>(place[1]) & 0xe0U) == 0x80U;
  return {isC1 ? control : utf8, place};
}

EmailAddressFault emailAddressDomainFault(std::string_view domain) noexcept {
  const char* const start = domain.data();
  const char* const end = start + domain.size();
  if (domain.empty()) return {"The domain is empty", start};
  if (domain.front() == '[') return s_literalFault(domain);
  for (const char* label = start;;) {
    const char* const labelEnd = s_skipLabel(label, end);
    if (labelEnd != end && *labelEnd != '.') return s_domainCharacterFault(labelEnd, end);
    if (labelEnd == label) {
      if (label == end) return {"The domain ends with a dot", label};
      if (label == start) return {"The domain begins with a dot", label};
      return {"Two dots in a row in the domain", label};
    }
    if (const EmailAddressFault fault = s_labelFault(label, labelEnd)) return fault;
    if (labelEnd == end) return {};
    label = labelEnd + 1;
  }
}

EmailAddressFault emailAddressLengthFault(std::size_t local, std::size_t domain,
                                          bool hasDomain) noexcept {
  if (hasDomain && local > s_emailAddressMaxLocal) {
    return {"The local part is longer than 64 octets"};
  }
  if (domain > s_emailAddressMaxDomain) return {"The domain is longer than 255 octets"};
  if (local + (hasDomain ? 1 + domain : 0) > s_emailAddressMaxWhole) {
    return {"The address is longer than 254 octets"};
  }
  return {};
}

std::size_t emailAddressWrittenLocalSize(std::string_view local) noexcept {
  if (s_isDotString(local)) return local.size();
  const auto backslashes = std::count_if(local.begin(), local.end(), s_needsBackslash);
  return local.size() + 2 + static_cast<std::size_t>(backslashes);
}

char* emailAddressWriteLocal(std::string_view local, char* text) noexcept {
  if (s_isDotString(local)) return std::copy(local.begin(), local.end(), text);
  *text++ = '"';
  for (const char c : local) {
    if (s_needsBackslash(c)) *text++ = '\\';
    *text++ = c;
  }
  *text++ = '"';
  return text;
}

}  // namespace Tessel
