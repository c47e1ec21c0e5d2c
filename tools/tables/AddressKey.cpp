// The keys of addresses. Plain ASCII, which nearly all addresses are, takes a fast path in one
// pass; ICU handles everything beyond ASCII.
#include "tables/AddressKey.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include <unicode/bytestream.h>
#include <unicode/idna.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

namespace Tessel::Tool {

namespace {

// Limits in octets, of texts as they are given (RFC 5321, 4.5.3.1).
constexpr std::size_t s_maxAddress = 254;
constexpr std::size_t s_maxLocal = 64;
constexpr std::size_t s_maxDomain = 255;

// Combining iota below: the only combining mark that folding would make a letter of its own.
constexpr char32_t s_combiningIota = 0x345;

char s_lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

std::string s_lowered(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                 [](char c) { return s_lowered(c); });
  return lowered;
}

bool s_isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// True for C0 and DEL. Those of C1 begin with a byte that they share with other characters.
bool s_isAsciiControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool s_hasEmptyLabel(std::string_view domain) {
  return domain.empty() || domain.front() == '.' || domain.back() == '.' ||
         domain.find("..") != std::string_view::npos;
}

// What each byte of a plain address becomes in its key; 0 for those that need a closer look.
constexpr std::array<char, 256> s_plainTable() {
  std::array<char, 256> table{};
  for (char c = '0'; c <= '9'; ++c) table[static_cast<unsigned char>(c)] = c;
  for (char c = 'a'; c <= 'z'; ++c) {
    table[static_cast<unsigned char>(c)] = c;
    table[static_cast<unsigned char>(c - 'a' + 'A')] = c;
  }
  for (const char c : {'.', '-', '_', '+', '=', '@'}) table[static_cast<unsigned char>(c)] = c;
  return table;
}
constexpr std::array<char, 256> s_plain = s_plainTable();

// ICU fails for lack of memory or of its data only: then the answer is unknown, not "not an
// address".
void s_require(UErrorCode status) {
  if (U_SUCCESS(status)) return;
  if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  throw std::runtime_error(std::string("The Unicode library failed: ") + u_errorName(status));
}

// The ICU objects in use. Immutable, so any thread may use it at any time.
struct Unicode {
  Unicode();

  const icu::Normalizer2* decomposer;  // ICU's own, never freed.
  const icu::Normalizer2* composer;    // As `decomposer`.
  std::unique_ptr<const icu::IDNA> idna;
};

Unicode::Unicode() {
  UErrorCode status = U_ZERO_ERROR;
  decomposer = icu::Normalizer2::getNFDInstance(status);
  composer = icu::Normalizer2::getNFCInstance(status);
  // STD3 rules, because other ASCII must not come out of a name that is not ASCII: U+FF20, the wide
  // "@", would become one.
  constexpr std::uint32_t options = UIDNA_USE_STD3_RULES | UIDNA_CHECK_BIDI | UIDNA_CHECK_CONTEXTJ |
                                    UIDNA_NONTRANSITIONAL_TO_ASCII;
  idna.reset(icu::IDNA::createUTS46Instance(options, status));
  s_require(status);
}

// Created by the first call. Throws when there is no memory or ICU lacks its data; the next call
// tries again.
const Unicode& s_unicode() {
  static const Unicode s_instance;
  return s_instance;
}

icu::StringPiece s_piece(std::string_view text) {
  return {text.data(), static_cast<std::int32_t>(text.size())};
}

// Decodes `text`, which is within the limits. False when it is not UTF-8 or has control characters.
bool s_decode(std::string_view text, icu::UnicodeString& decoded) {
  // No text has more UTF-16 units than octets.
  std::array<char16_t, s_maxDomain> units{};
  std::int32_t count = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(units.data(), static_cast<std::int32_t>(units.size()), &count, text.data(),
                static_cast<std::int32_t>(text.size()), &status);
  if (status == U_INVALID_CHAR_FOUND) return false;
  s_require(status);
  const auto isControl = [](char16_t unit) {
    return unit < 0x20 || (unit >= 0x7f && unit <= 0x9f);
  };
  if (std::any_of(units.begin(), units.begin() + count, isControl)) return false;
  decoded.setTo(units.data(), count);
  return true;
}

// Decomposed before folding, so that letter case has the same meaning for a letter with its marks
// in one character and in several: U+0130 alone folds to nothing else, "I" with U+0307 does.
icu::UnicodeString s_folded(const icu::UnicodeString& text) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString letters = s_unicode().decomposer->normalize(text, status);
  s_require(status);
  icu::UnicodeString folded;
  for (std::int32_t i = 0; i < letters.length(); i = letters.moveIndex32(i, 1)) {
    const UChar32 letter = letters.char32At(i);
    folded.append(letter == s_combiningIota ? letter : u_foldCase(letter, U_FOLD_CASE_DEFAULT));
  }
  icu::UnicodeString composed = s_unicode().composer->normalize(folded, status);
  s_require(status);
  return composed;
}

// Appends the content of the quoted string `text`. `splitAddress` has seen that it is one.
void s_appendUnquoted(std::string_view text, std::string& out) {
  for (std::size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i] == '\\') ++i;
    out += text[i];
  }
}

bool s_localKey(std::string_view text, std::string& key) {
  key.clear();
  if (text.size() > s_maxLocal || std::any_of(text.begin(), text.end(), s_isAsciiControl)) {
    return false;
  }
  if (text.front() == '"') {
    s_appendUnquoted(text, key);
  } else {
    key = text;
  }
  if (s_isAscii(key)) {
    key = s_lowered(key);
    return !key.empty();
  }
  icu::UnicodeString decoded;
  if (!s_decode(key, decoded)) return false;
  key.clear();
  s_folded(decoded).toUTF8String(key);
  return true;
}

bool s_appendAsciiDomain(std::string_view text, std::string& key) {
  for (const char c : text) {
    if (c == ' ' || c == '@' || s_isAsciiControl(c)) return false;
    key += s_lowered(c);
  }
  return true;
}

bool s_appendUnicodeDomain(std::string_view text, std::string& key) {
  icu::UnicodeString decoded;
  if (!s_decode(text, decoded)) return false;
  std::string ascii;
  icu::StringByteSink<std::string> sink(&ascii);
  icu::IDNAInfo info;
  UErrorCode status = U_ZERO_ERROR;
  s_unicode().idna->nameToASCII_UTF8(s_piece(text), sink, info, status);
  s_require(status);
  // A wide dot at the end has become a dot by now.
  if (info.hasErrors() || s_hasEmptyLabel(ascii)) return false;
  key += ascii;
  return true;
}

bool s_appendDomainKey(std::string_view text, std::string& key) {
  if (text.size() > s_maxDomain || s_hasEmptyLabel(text)) return false;
  return s_isAscii(text) ? s_appendAsciiDomain(text, key) : s_appendUnicodeDomain(text, key);
}

// The fast path. False when `text` is anything but a plain address, good or bad.
bool s_plainKey(std::string_view text, std::string& key) {
  std::size_t at = text.size();
  char before = '@';
  key.resize(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = s_plain[static_cast<unsigned char>(text[i])];
    if (c == 0) return false;
    if (c == '@') {
      if (i == 0 || at != text.size()) return false;
      at = i;
    }
    // After the "@", a dot must end a label.
    if (c == '.' && at != text.size() && (before == '.' || before == '@')) return false;
    key[i] = c;
    before = c;
  }
  return at <= s_maxLocal && at != text.size() && before != '@' && before != '.';
}

}  // namespace

bool splitAddress(std::string_view text, std::string_view& local, std::string_view& domain) {
  std::size_t at = 0;
  if (!text.empty() && text.front() == '"') {
    for (at = 1; at < text.size() && text[at] != '"'; ++at) {
      if (text[at] == '\\') ++at;
    }
    ++at;
    if (at >= text.size() || text[at] != '@') return false;
  } else {
    at = text.find('@');
    if (at == std::string_view::npos) return false;
  }
  local = text.substr(0, at);
  domain = text.substr(at + 1);
  return !local.empty() && !domain.empty() && domain.find('@') == std::string_view::npos;
}

bool addressKey(std::string_view text, std::string& key) {
  if (text.size() > s_maxAddress) return false;
  if (s_plainKey(text, key)) return true;
  std::string_view local;
  std::string_view domain;
  if (!splitAddress(text, local, domain) || !s_localKey(local, key)) return false;
  key += '@';
  return s_appendDomainKey(domain, key);
}

bool domainKey(std::string_view text, std::string& key) {
  key.clear();
  return s_appendDomainKey(text, key);
}

std::string comparisonKey(std::string_view text) {
  std::string key;
  return addressKey(text, key) ? key : s_lowered(text);
}

std::string comparisonDomain(std::string_view text) {
  std::string key;
  return domainKey(text, key) ? key : s_lowered(text);
}

}  // namespace Tessel::Tool
