// The one reader of rows.
#include "tables/RowReader.h"

#include <algorithm>

#include "tables/PlainAddresses.h"

namespace Tessel::Tool {

namespace {

// What people call the columns.
const char* s_nameOf(TableKind kind, bool isKey) {
  if (kind == TableKind::Alias) return isKey ? "alias" : "members";
  return isKey ? "private address" : "public address";
}

bool s_isKey(RowFault fault) {
  return fault == RowFault::BadKey || fault == RowFault::EmptyKey;
}

bool s_isEmpty(RowFault fault) {
  return fault == RowFault::EmptyKey || fault == RowFault::EmptyValue;
}

// As addressFault(), of a parser that would stop at a NUL of `text`.
template <class Parse>
std::optional<std::string> s_faultOf(std::string_view text, Parse parse) {
  if (text.find('\0') != std::string_view::npos) return "it contains a NUL character";
  return addressFault(parse);
}

}  // namespace

RowFault RowReader::refuse(RowFault fault, const std::string& reason) {
  const char* const name = s_nameOf(m_kind, s_isKey(fault));
  if (s_isEmpty(fault)) {
    const bool isMany = m_kind == TableKind::Alias && !s_isKey(fault);
    m_why = std::string("the ") + name + (isMany ? " are empty" : " is empty");
  } else {
    m_why = std::string("bad ") + name + ": " + reason;
  }
  return fault;
}

RowFault RowReader::readKey(std::string_view text) {
  m_key = {};
  if (isPlain(text)) {
    m_key = text;
    return RowFault::None;
  }
  const auto fault =
      s_faultOf(text, [&] { m_parsedKey = EmailAddress::rfc5321Parse(text, false).address(); });
  if (fault) return refuse(RowFault::BadKey, *fault);
  if (m_parsedKey.empty()) return refuse(RowFault::EmptyKey, "");
  m_key = m_parsedKey;
  return RowFault::None;
}

RowFault RowReader::readValue(std::string_view text) {
  const bool isMask = m_kind == TableKind::Mask;
  if (splitPlain(text, m_values) && (!isMask || m_values.size() == 1)) return RowFault::None;
  m_values.clear();
  m_parsedValues.clear();
  const auto fault = s_faultOf(text, [&] {
    if (isMask) {
      const EmailAddress address = EmailAddress::rfc5321Parse(text, false);
      if (!address.isNull()) m_parsedValues.push_back(address.address());
      return;
    }
    for (const EmailAddress& member : EmailAddress::rfc5322ParseSet(text, true, false)) {
      m_parsedValues.push_back(member.address());
    }
  });
  if (fault) return refuse(RowFault::BadValue, *fault);
  if (m_parsedValues.empty()) return refuse(RowFault::EmptyValue, "");
  m_values.assign(m_parsedValues.begin(), m_parsedValues.end());
  return RowFault::None;
}

RowFault RowReader::read(std::string_view key, std::string_view value) {
  const RowFault keyFault = readKey(key);
  const std::string keyWhy = keyFault == RowFault::None ? "" : m_why;
  const RowFault valueFault = readValue(value);
  const bool isValue = keyFault == RowFault::None ||
                       (keyFault == RowFault::EmptyKey && valueFault == RowFault::BadValue);
  if (isValue) return valueFault;
  m_why = keyWhy;
  return keyFault;
}

EmailAddress RowReader::keyAddress() const {
  return EmailAddress::rfc5321Parse(m_key, false);
}

std::vector<EmailAddress> RowReader::valueAddresses() const {
  std::vector<EmailAddress> addresses;
  addresses.reserve(m_values.size());
  // A member may have no domain, as the all-users marker.
  for (const std::string_view value : m_values) {
    addresses.push_back(EmailAddress::rfc5321Parse(value, m_kind == TableKind::Alias));
  }
  const auto isMisplaced = [](const EmailAddress& a, const EmailAddress& b) { return !(a < b); };
  if (std::adjacent_find(addresses.begin(), addresses.end(), isMisplaced) != addresses.end()) {
    // Of equal addresses the first stays.
    std::stable_sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  }
  return addresses;
}

}  // namespace Tessel::Tool
