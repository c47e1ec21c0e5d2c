// The readers of address text. Text that is one plain mailbox takes a short way with no copying;
// everything else takes the full grammar, which also finds out what is wrong.
#include "address/EmailAddressParser.h"

#include <algorithm>

#include "address/EmailAddressGrammar.h"

namespace Tessel {

namespace {

bool s_isBlank(char c) {
  return c == ' ' || c == '\t';
}

// Reads a dot-string, "@" and a domain of ASCII labels from `place` on. Returns the place behind
// the last label, or null when there is anything else, good or bad.
const char* s_readPlain(const char* place, const char* end, EmailAddressParts& parts) {
  const char* const start = place;
  for (;; ++place) {
    const char* const word = place;
    place = emailAddressSkip(s_atext, place, end);
    if (place == word || place == end) return nullptr;
    if (*place != '.') break;
  }
  const auto localSize = static_cast<std::size_t>(place - start);
  if (*place != '@' || localSize > s_emailAddressMaxLocal) return nullptr;
  const char* const domain = ++place;
  for (;; ++place) {
    const char* const label = place;
    place = emailAddressSkip(s_labelText, place, end);
    const auto size = static_cast<std::size_t>(place - label);
    if (size == 0 || size > s_emailAddressMaxLabel) return nullptr;
    if (*label == '-' || place[-1] == '-') return nullptr;
    if (place == end || *place != '.') break;
  }
  if (static_cast<std::size_t>(place - start) > s_emailAddressMaxWhole) return nullptr;
  parts.local = {start, localSize};
  parts.domain = {domain, static_cast<std::size_t>(place - domain)};
  return place;
}

EmailAddressFault s_localCharacterFault(const char* place, const char* end) {
  if (s_isBlank(*place)) return {"A blank in the local part", place};
  return emailAddressCharacterFault(place, end, "A control character in the local part",
                                    "Invalid UTF-8 in the local part",
                                    "Character % is not allowed in an unquoted local part");
}

// Reads a dot-string. Moves `place` behind it, to the end of the text or an "@".
EmailAddressFault s_readDotString(const char*& place, const char* end) {
  const char* const start = place;
  for (;; ++place) {
    const char* const word = place;
    place = emailAddressSkipAtom(place, end);
    if (place == end || *place == '@') {
      if (place != word) return {};
      return {place == start ? "The local part is empty" : "The local part ends with a dot", place};
    }
    if (*place != '.') return s_localCharacterFault(place, end);
    if (place == word) {
      return {place == start ? "The local part begins with a dot"
                             : "Two dots in a row in the local part",
              place};
    }
  }
}

// Reads a quoted string into the local part of `parts`. Moves `place` behind the closing quote.
EmailAddressFault s_readQuotedString(const char*& place, const char* end,
                                     EmailAddressParts& parts) {
  std::size_t size = 0;
  for (++place; place != end && *place != '"';) {
    const bool isPair = *place == '\\';
    if (isPair && ++place == end) break;
    const std::size_t length = emailAddressCharacterLength(place, end);
    if (isPair && length > 1) {
      return {"A backslash before a character outside ASCII in the local part", place};
    }
    if (length == 0) return s_localCharacterFault(place, end);
    if (size + length > s_emailAddressMaxWhole) {
      return {"The quoted local part is longer than 254 octets", place};
    }
    std::copy_n(place, length, parts.localBuffer + size);
    size += length;
    place += length;
  }
  if (place == end) return {"The quoted local part is not closed", place};
  ++place;
  parts.local = {parts.localBuffer, size};
  if (place != end && *place != '@') return {"Text after the quoted local part", place};
  return {};
}

}  // namespace

std::string_view emailAddressTextUntilNul(std::string_view text) noexcept {
  return text.substr(0, text.find('\0'));
}

std::string_view emailAddressTrimmed(std::string_view text) noexcept {
  constexpr auto s_ignored = [](char c) { return s_isBlank(c) || c == '\r'; };
  while (!text.empty() && s_ignored(text.front())) text.remove_prefix(1);
  while (!text.empty() && s_ignored(text.back())) text.remove_suffix(1);
  return text;
}

EmailAddressFault emailAddressReadMailbox(std::string_view text, bool allowNoDomain,
                                          EmailAddressParts& parts) noexcept {
  const char* const start = text.data();
  const char* const end = start + text.size();
  if (s_readPlain(start, end, parts) == end) return {};
  const char* place = start;
  const bool isQuoted = *start == '"';
  if (const EmailAddressFault fault =
          isQuoted ? s_readQuotedString(place, end, parts) : s_readDotString(place, end)) {
    return fault;
  }
  const auto written = static_cast<std::size_t>(place - start);
  if (!isQuoted) parts.local = {start, written};
  const bool hasDomain = place != end;
  parts.domain = hasDomain ? std::string_view(place + 1, static_cast<std::size_t>(end - place - 1))
                           : std::string_view();
  if (!hasDomain && !allowNoDomain) return {"The \"@\" is missing", place};
  if (!hasDomain && parts.local.empty()) return {"The local part is empty", start};
  if (hasDomain) {
    if (const EmailAddressFault fault = emailAddressDomainFault(parts.domain)) return fault;
  }
  return emailAddressLengthFault(written, parts.domain.size(), hasDomain);
}

EmailAddressReader::EmailAddressReader(std::string_view text, bool allowNoDomain,
                                       bool allowGroups) noexcept
    : m_allowNoDomain(allowNoDomain), m_allowGroups(allowGroups) {
  std::string_view trimmed = emailAddressTrimmed(text);
  // A line break that was folding white space together with blanks just trimmed goes with them.
  while (!trimmed.empty() && trimmed.back() == '\n' &&
         trimmed.data() + trimmed.size() != text.data() + text.size() &&
         s_isBlank(trimmed.data()[trimmed.size()])) {
    trimmed.remove_suffix(1);
    trimmed = emailAddressTrimmed(trimmed);
  }
  m_place = trimmed.data();
  m_end = m_place + trimmed.size();
  m_item = m_place;
}

bool EmailAddressReader::readSingle(EmailAddressParts& parts) noexcept {
  if (s_readPlain(m_place, m_end, parts) == m_end) return true;
  switch (readItem(parts)) {
    case Item::address:
      break;
    case Item::empty:
      return fail("There is no address");
    case Item::groupStart:
    case Item::fault:
      return false;
  }
  if (at(',')) return fail("More than one address");
  return atEnd();
}

bool EmailAddressReader::readNext(EmailAddressParts& parts) noexcept {
  for (;;) {
    while (!atEnd() && (s_isBlank(*m_place) || *m_place == ',')) ++m_place;
    m_item = m_inGroup && atEnd() ? m_group : m_place;
    if (atEnd()) return m_inGroup && fail("The group is not closed by a semicolon");
    if (readPlain(parts)) return true;
    switch (readItem(parts)) {
      case Item::address:
        return true;
      case Item::empty:
        if (at(';') && !endGroup()) return false;
        break;
      case Item::groupStart:
        break;
      case Item::fault:
        return false;
    }
  }
}

std::string_view EmailAddressReader::faultyItem() const noexcept {
  const char* const end = std::find(std::max(m_item, m_fault.at), m_end, ',');
  return {m_item, static_cast<std::size_t>(end - m_item)};
}

// The short way for an item that is nothing but a plain mailbox.
bool EmailAddressReader::readPlain(EmailAddressParts& parts) noexcept {
  const char* const after = s_readPlain(m_place, m_end, parts);
  if (after == nullptr || (after != m_end && *after != ',')) return false;
  m_place = after;
  return true;
}

// Reads up to the end of the item: the end of the text, a comma, or the semicolon of a group.
// Behind the colon for the start of a group.
EmailAddressReader::Item EmailAddressReader::readItem(EmailAddressParts& parts) noexcept {
  Words words;
  if (!readWords(parts, words)) return Item::fault;
  if (at(':')) return startGroup(words);
  const bool ends = atEnd() || at(',') || at(';');
  if (!words.any && ends) {
    if (!at(';') || m_inGroup) return Item::empty;
    fail("A semicolon outside a group");
    return Item::fault;
  }
  bool good = false;
  if (at('<')) {
    good = words.asPhrase ? fail(words.asPhrase) : readAngle(parts);
  } else {
    good = readAddress(words, parts);
  }
  return good && checkAfterAddress() ? Item::address : Item::fault;
}

// At the colon.
EmailAddressReader::Item EmailAddressReader::startGroup(const Words& words) noexcept {
  if (!m_allowGroups) {
    fail("A group is not accepted here");
  } else if (m_inGroup) {
    fail("A group inside a group");
  } else if (!words.any) {
    fail("The group has no name");
  } else if (words.asPhrase) {
    fail(words.asPhrase);
  } else {
    ++m_place;
    m_inGroup = true;
    m_group = m_item;
    return Item::groupStart;
  }
  return Item::fault;
}

// At the semicolon.
bool EmailAddressReader::endGroup() noexcept {
  m_inGroup = false;
  ++m_place;
  if (!skipCfws()) return false;
  return atEnd() || at(',') || fail("Text after the group");
}

// At the "<".
bool EmailAddressReader::readAngle(EmailAddressParts& parts) noexcept {
  ++m_place;
  if (!skipCfws()) return false;
  if (at('>')) return fail("The angle brackets are empty");
  if (at('@') || at(',')) return fail("A source route is not accepted");
  Words words;
  if (!readWords(parts, words) || !readAddress(words, parts)) return false;
  if (!at('>')) return fail("The angle bracket is not closed behind the address");
  ++m_place;
  return skipCfws();
}

// At the "@" behind the words, or where it is missing.
bool EmailAddressReader::readAddress(const Words& words, EmailAddressParts& parts) noexcept {
  if (at('@')) {
    if (words.asLocal) return fail(words.asLocal);
    if (words.expectWord) {
      return fail(words.any ? "The local part ends with a dot" : "The local part is empty");
    }
    ++m_place;
    return readDomain(parts) && finish(words, true, parts);
  }
  if (!atEnd() && !at(',') && !at(';') && !at('>')) {
    return failAtCharacter("A control character in the address", "Invalid UTF-8 in the address",
                           "Character % is not allowed here");
  }
  if (!m_allowNoDomain) return fail("The \"@\" is missing");
  if (words.asLocal) return fail(words.asLocal);
  if (words.expectWord) {
    return fail(words.any ? "The local part ends with a dot" : "The local part is empty");
  }
  parts.domain = {};
  return finish(words, false, parts);
}

// Checks the lengths and sets the local part.
bool EmailAddressReader::finish(const Words& words, bool hasDomain,
                                EmailAddressParts& parts) noexcept {
  if (const EmailAddressFault fault =
          emailAddressLengthFault(words.written, parts.domain.size(), hasDomain)) {
    return fail(fault.reason);
  }
  if (!hasDomain && words.size == 0) return fail("The local part is empty");
  parts.local = {parts.localBuffer, words.size};
  return true;
}

// An address must be followed by the end, a comma, or the semicolon of its group.
bool EmailAddressReader::checkAfterAddress() noexcept {
  if (!skipCfws()) return false;
  if (atEnd() || at(',') || (at(';') && m_inGroup)) return true;
  if (at(';')) return fail("A semicolon outside a group");
  if (at('@')) return fail("A second \"@\" outside quotes");
  return failAtCharacter("A control character behind the address",
                         "Invalid UTF-8 behind the address", "Text after the address");
}

// Reads words, dots, comments and white space up to anything else.
bool EmailAddressReader::readWords(EmailAddressParts& parts, Words& words) noexcept {
  for (;;) {
    if (!skipCfws()) return false;
    if (at('.')) {
      addDot(parts, words);
      continue;
    }
    const char* const word = m_place;
    if (!at('"')) m_place = emailAddressSkipAtom(m_place, m_end);
    if (!at('"') && m_place == word) return true;
    if (!words.expectWord && !words.asLocal) {
      words.asLocal = {"Two words without a dot between them before the \"@\"", word};
    }
    words.any = true;
    words.expectWord = false;
    if (m_place != word) {
      appendLocal(parts, words, word, m_place);
    } else if (!readQuoted(parts, words)) {
      return false;
    }
  }
}

// At the dot.
void EmailAddressReader::addDot(EmailAddressParts& parts, Words& words) noexcept {
  if (words.expectWord && !words.asLocal) {
    words.asLocal = {
        words.any ? "Two dots in a row in the local part" : "The local part begins with a dot",
        m_place};
  }
  if (!words.any) words.asPhrase = {"The display name begins with a dot", m_place};
  words.any = true;
  words.expectWord = true;
  appendLocal(parts, words, m_place, m_place + 1);
  ++m_place;
}

// Adds to the local part, which is kept only as long as it is within the limits.
void EmailAddressReader::appendLocal(EmailAddressParts& parts, Words& words, const char* start,
                                     const char* end) noexcept {
  const auto size = static_cast<std::size_t>(end - start);
  words.written += size;
  if (words.written > s_emailAddressMaxWhole) return;
  std::copy_n(start, size, parts.localBuffer + words.size);
  words.size += size;
}

// At the opening quote. A line break inside is no part of the string, the blank after it is (RFC
// 5322 section 3.2.4).
bool EmailAddressReader::readQuoted(EmailAddressParts& parts, Words& words) noexcept {
  words.written += 2;
  ++m_place;
  while (!atEnd() && *m_place != '"') {
    if (const std::size_t folding = foldingSize(); folding > 0) {
      m_place += folding;
      continue;
    }
    if (at('\\')) {
      ++words.written;
      if (++m_place == m_end) break;
    }
    if (at('\t') && !words.asLocal) words.asLocal = {"A tab in the local part", m_place};
    const std::size_t length = at('\t') ? 1 : emailAddressCharacterLength(m_place, m_end);
    if (length == 0) {
      return failAtCharacter("A control character in a quoted string",
                             "Invalid UTF-8 in a quoted string", "");
    }
    appendLocal(parts, words, m_place, m_place + length);
    m_place += length;
  }
  if (atEnd()) return fail("A quoted string is not closed");
  ++m_place;
  return true;
}

// Behind the "@". Leaves out the white space and comments around the dots.
bool EmailAddressReader::readDomain(EmailAddressParts& parts) noexcept {
  parts.domain = {};
  if (!skipCfws()) return false;
  if (at('[')) {
    if (!readLiteral(parts)) return false;
  } else {
    for (;;) {
      const char* const atom = m_place;
      m_place = emailAddressSkipAtom(m_place, m_end);
      if (!appendDomain(parts, atom, m_place) || !skipCfws()) return false;
      if (!at('.')) break;
      if (!appendDomain(parts, m_place, m_place + 1)) return false;
      ++m_place;
      if (!skipCfws()) return false;
    }
  }
  if (parts.domain.empty() && !atEnd() && static_cast<unsigned char>(*m_place) >= 0x80) {
    return failAtCharacter("A control character in the domain", "Invalid UTF-8 in the domain", "");
  }
  const EmailAddressFault fault = emailAddressDomainFault(parts.domain);
  return !fault || fail(fault);
}

// At the "[". Leaves out folding white space (RFC 5322 section 3.4.1).
bool EmailAddressReader::readLiteral(EmailAddressParts& parts) noexcept {
  for (bool closed = false; !closed && !atEnd();) {
    if (const std::size_t folding = foldingSize(); folding > 0 || s_isBlank(*m_place)) {
      m_place += std::max(folding, std::size_t{1});
      continue;
    }
    if (!emailAddressIs(s_literalText, *m_place) && !at('[') && !at(']')) {
      return failAtCharacter("A control character in the address literal",
                             "Invalid UTF-8 in the address literal",
                             "Character % is not allowed in an address literal");
    }
    closed = at(']');
    if (!appendDomain(parts, m_place, m_place + 1)) return false;
    ++m_place;
  }
  return true;
}

bool EmailAddressReader::appendDomain(EmailAddressParts& parts, const char* start,
                                      const char* end) noexcept {
  const auto size = static_cast<std::size_t>(end - start);
  const std::size_t before = parts.domain.size();
  if (before + size > s_emailAddressMaxDomain) {
    return fail("The domain is longer than 255 octets");
  }
  std::copy_n(start, size, parts.domainBuffer + before);
  parts.domain = {parts.domainBuffer, before + size};
  return true;
}

// Skips comments and folding white space (RFC 5322 section 3.2.2).
bool EmailAddressReader::skipCfws() noexcept {
  while (!atEnd()) {
    if (s_isBlank(*m_place)) {
      ++m_place;
    } else if (const std::size_t folding = foldingSize(); folding > 0) {
      m_place += folding;
    } else if (*m_place == '\n' || *m_place == '\r') {
      return fail("A line break that is not followed by a blank");
    } else if (*m_place != '(') {
      return true;
    } else if (!skipComment()) {
      return false;
    }
  }
  return true;
}

// At the "(". Comments nest; only the depth is kept.
bool EmailAddressReader::skipComment() noexcept {
  std::size_t depth = 0;
  while (!atEnd()) {
    if (const std::size_t folding = foldingSize(); folding > 0) {
      m_place += folding;
      continue;
    }
    const char first = *m_place;
    if (first == '\\' && ++m_place == m_end) break;
    const std::size_t length = at('\t') ? 1 : emailAddressCharacterLength(m_place, m_end);
    if (length == 0) {
      return failAtCharacter("A control character in a comment", "Invalid UTF-8 in a comment", "");
    }
    m_place += length;
    if (first == '(') ++depth;
    if (first == ')' && --depth == 0) return true;
  }
  return fail("A comment is not closed");
}

// Length of the line break here if a blank or tab follows it, otherwise 0. A bare LF counts.
std::size_t EmailAddressReader::foldingSize() const noexcept {
  const auto left = static_cast<std::size_t>(m_end - m_place);
  const std::size_t size = at('\r') ? 2 : 1;
  if (left <= size || m_place[size - 1] != '\n' || !s_isBlank(m_place[size])) return 0;
  return size;
}

bool EmailAddressReader::fail(const char* reason) noexcept {
  return fail({reason, m_place});
}

// The place in the text is here: a fault's own place may be in a buffer.
bool EmailAddressReader::fail(const EmailAddressFault& fault) noexcept {
  m_fault = {fault.reason, m_place, fault.character};
  return false;
}

bool EmailAddressReader::failAtCharacter(const char* control, const char* utf8,
                                         const char* other) noexcept {
  return fail(emailAddressCharacterFault(m_place, m_end, control, utf8, other));
}

}  // namespace Tessel
