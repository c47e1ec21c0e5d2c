// The address value: its storage, comparison and text, and the entry points of the parsers.
#include "address/EmailAddress.h"

#include <algorithm>
#include <ostream>

#include "address/EmailAddressEscape.h"
#include "address/EmailAddressFault.h"
#include "address/EmailAddressGrammar.h"
#include "address/EmailAddressParser.h"
#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel {

namespace {

// Code of the library's own errors, and the source that all of these name.
constexpr int s_errorCode = 4;
constexpr const char* s_errorFile = "EmailAddress";

[[noreturn]] void s_throw(const char* context, const EmailAddressFault& fault,
                          std::string_view text, int line = sourceLine()) {
  throw Exception(Exception(context, s_errorCode, s_errorFile, line)
                      .stringParameter(emailAddressFaultDetail(fault, text)));
}

// Fault of a local part without quotes: what cannot be written even inside quotes.
EmailAddressFault s_plainLocalFault(std::string_view local) {
  const char* const end = local.data() + local.size();
  for (const char* place = local.data(); place != end;) {
    const std::size_t length = emailAddressCharacterLength(place, end);
    if (length == 0) {
      return emailAddressCharacterFault(place, end, "A control character in the local part",
                                        "Invalid UTF-8 in the local part", "");
    }
    place += length;
  }
  return {};
}

EmailAddressFault s_createFault(std::string_view local, std::string_view domain,
                                bool allowNoDomain) {
  if (const EmailAddressFault fault = s_plainLocalFault(local)) return fault;
  const bool hasDomain = !domain.empty() || !allowNoDomain;
  if (hasDomain) {
    if (const EmailAddressFault fault = emailAddressDomainFault(domain)) return fault;
  }
  return emailAddressLengthFault(emailAddressWrittenLocalSize(local), domain.size(), hasDomain);
}

}  // namespace

EmailAddress::EmailAddress(std::string_view local, std::string_view domain) {
  const std::size_t size = local.size() + 1 + domain.size();
  char* content = m_value.bytes;
  if (size > sizeof(m_value.bytes)) {
    content = new char[(size + s_wordSize - 1) / s_wordSize * s_wordSize]{};
    std::memcpy(m_value.bytes, &content, sizeof(content));
  }
  m_value.localLength = static_cast<std::uint8_t>(local.size());
  m_value.domainLength = static_cast<std::uint8_t>(domain.size());
  local.copy(content, local.size());
  domain.copy(content + local.size() + 1, domain.size());
}

EmailAddress EmailAddress::rfc5321Parse(std::string_view text, bool allowNoDomain) {
  text = emailAddressTrimmed(emailAddressTextUntilNul(text));
  if (text.empty()) return {};
  EmailAddressParts parts;
  if (const EmailAddressFault fault = emailAddressReadMailbox(text, allowNoDomain, parts)) {
    s_throw("EmailAddress::rfc5321Parse", fault, text);
  }
  return {parts.local, parts.domain};
}

EmailAddress EmailAddress::rfc5322Parse(std::string_view text, bool allowNoDomain) {
  text = emailAddressTextUntilNul(text);
  EmailAddressReader reader(text, allowNoDomain, false);
  if (reader.isBlank()) return {};
  EmailAddressParts parts;
  if (!reader.readSingle(parts)) {
    s_throw("EmailAddress::rfc5322Parse", reader.fault(), emailAddressTrimmed(text));
  }
  return {parts.local, parts.domain};
}

std::set<EmailAddress> EmailAddress::rfc5322ParseSet(std::string_view text, bool allowNoDomain,
                                                     bool allowGroups) {
  EmailAddressReader reader(emailAddressTextUntilNul(text), allowNoDomain, allowGroups);
  std::set<EmailAddress> addresses;
  EmailAddressParts parts;
  // Members text is in ascending order, so each address belongs at the end.
  while (reader.readNext(parts)) {
    addresses.insert(addresses.end(), EmailAddress(parts.local, parts.domain));
  }
  if (reader.fault()) {
    s_throw("EmailAddress::rfc5322ParseSet", reader.fault(), reader.faultyItem());
  }
  return addresses;
}

EmailAddress EmailAddress::create(std::string_view local, std::string_view domain,
                                  bool allowNoDomain) {
  local = emailAddressTextUntilNul(local);
  domain = emailAddressTextUntilNul(domain);
  if (local.empty() && domain.empty()) return {};
  if (const EmailAddressFault fault = s_createFault(local, domain, allowNoDomain)) {
    s_throw("EmailAddress::create", fault, std::string(local) + "@" + std::string(domain));
  }
  return {local, domain};
}

std::string EmailAddress::local() const {
  return {content(), m_value.localLength};
}

std::string EmailAddress::domain() const {
  return {content() + m_value.localLength + 1, m_value.domainLength};
}

std::string EmailAddress::address() const {
  char text[s_emailAddressMaxWhole];
  return {text, write(text)};
}

bool EmailAddress::equalLong(const EmailAddress& a, const EmailAddress& b) noexcept {
  const std::size_t size = a.contentSize();
  for (std::size_t i = 0; i < size; i += s_wordSize) {
    const std::uint64_t wordA = word(a.heap() + i);
    const std::uint64_t wordB = word(b.heap() + i);
    if (wordA != wordB && !differInCaseOnly(wordA, wordB)) return false;
  }
  return true;
}

bool EmailAddress::lessLong(const EmailAddress& a, const EmailAddress& b) noexcept {
  const std::size_t sizeA = a.contentSize();
  const std::size_t sizeB = b.contentSize();
  const std::size_t size = std::min(sizeA, sizeB);
  const char* const contentA = a.content();
  const char* const contentB = b.content();
  for (std::size_t i = 0; i < size; i += s_wordSize) {
    std::uint64_t wordA = word(contentA + i);
    std::uint64_t wordB = word(contentB + i);
    if (i == s_lastInlineWord && a.isInline()) wordA &= s_contentOfLastWord;
    if (i == s_lastInlineWord && b.isInline()) wordB &= s_contentOfLastWord;
    wordA = folded(wordA);
    wordB = folded(wordB);
    if (wordA != wordB) return byteOrder(wordA) < byteOrder(wordB);
  }
  // All words that both have are equal: what the longer one has beyond them is more text.
  return sizeA < sizeB;
}

std::ostream& operator<<(std::ostream& stream, const EmailAddress& address) {
  char text[s_emailAddressMaxWhole];
  return stream << std::string_view(text, address.write(text));
}

void EmailAddress::copyHeap(const EmailAddress& other) {
  const std::string_view local(other.content(), other.m_value.localLength);
  *this = EmailAddress(local, {local.data() + local.size() + 1, other.m_value.domainLength});
}

void EmailAddress::assignHeap(const EmailAddress& other) {
  *this = EmailAddress(other);
}

std::size_t EmailAddress::write(char* text) const noexcept {
  if (isNull()) return 0;
  const std::string_view local(content(), m_value.localLength);
  const std::string_view domain(content() + local.size() + 1, m_value.domainLength);
  char* place = emailAddressWriteLocal(local, text);
  if (!domain.empty()) {
    *place++ = '@';
    place = std::copy(domain.begin(), domain.end(), place);
  }
  return static_cast<std::size_t>(place - text);
}

std::string emailAddressEscapedWrite(const EmailAddress& address) {
  return emailAddressEscape(address.address());
}

}  // namespace Tessel
