// The rules of aliases in memory.
#include "serve/image/RuleImage.h"

#include <algorithm>

#include "tables/AddressKey.h"
#include "tables/TextRows.h"

namespace Tessel::Serve {

using std::chrono::sys_seconds;
using Tool::AddressIndex;

// What people write for people stays in the table. A tab is in no address of a rule.
const char* const s_selectRules =
    "select concat( table_name, ' ', name ),"
    " concat_ws( '\t', writers, ifnull( expires, '' ), owners, listed ) from rules;";

namespace {

constexpr sys_seconds s_noExpiry = sys_seconds::max();

// The rule of the second column of a row; nothing when it is none.
std::optional<Tool::AliasRule> s_rule(std::string_view text) {
  constexpr std::size_t columns = 4;
  Tool::TextRow parts;
  while (parts.size() + 1 < columns) {
    const std::size_t end = text.find('\t');
    if (end == std::string_view::npos) return std::nullopt;
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  return Tool::readRule({parts[0], std::string(text), parts[2], parts[1], "", ""}, 0);
}

}  // namespace

RuleImage::RuleImage(const RowSource& source) {
  source([this](std::string_view name, std::string_view text) { take(name, text); });
  m_rows.shrink();
  std::copy_if(m_expires.begin(), m_expires.end(), std::back_inserter(m_expiries),
               [](sys_seconds time) { return time != s_noExpiry; });
  std::sort(m_expiries.begin(), m_expiries.end());
  if (m_expiries.empty()) m_expires = {};
}

void RuleImage::take(std::string_view name, std::string_view text) {
  const std::size_t blank = std::min(name.find(' '), name.size());
  const std::string_view address = name.substr(std::min(blank + 1, name.size()));
  std::string key;
  if (!address.empty() && !Tool::addressKey(address, key)) {
    m_brokenRows.add(name, text, "bad rule: nobody can ask for its alias", "");
    return;
  }
  if (address.empty()) key.clear();
  key.insert(0, std::string(name.substr(0, blank)) + " ");
  const std::optional<Tool::AliasRule> rule = s_rule(text);
  if (!rule) {
    m_brokenRows.add(name, text, "bad rule: it cannot be read", key);
  } else if (m_keys.add(key).isNew) {
    m_rows.add(name, text);
    m_isOpen = m_isOpen && rule->writers == Tool::Writers::Anyone;
    m_expires.push_back(rule->expires.value_or(s_noExpiry));
  } else {
    m_brokenRows.add(name, text, "another rule is of the same address", "");
  }
}

RuleImage::Found RuleImage::find(std::string_view sqlName, std::string_view key) const {
  std::string whole = std::string(sqlName) + " ";
  std::string own = whole + std::string(key);
  for (const std::string& wanted : {own, whole}) {
    const RowStore::Id row = m_keys.find(wanted);
    if (row != AddressIndex::s_none) return {true, row};
    if (m_brokenRows.hasKey(wanted)) return {false, AddressIndex::s_none};
  }
  return {true, AddressIndex::s_none};
}

RuleImage::Presence RuleImage::presence(std::string_view sqlName, std::string_view key,
                                        sys_seconds now) const {
  if (!hasExpiries()) return Presence::There;
  const Found found = find(sqlName, key);
  if (!found.isKnown) return Presence::Unknown;
  if (found.row == AddressIndex::s_none || m_expires.empty()) return Presence::There;
  return m_expires[found.row] <= now ? Presence::Expired : Presence::There;
}

std::size_t RuleImage::expired(sys_seconds now) const {
  return static_cast<std::size_t>(std::upper_bound(m_expiries.begin(), m_expiries.end(), now) -
                                  m_expiries.begin());
}

std::optional<sys_seconds> RuleImage::nextExpiry(sys_seconds now) const {
  const std::size_t count = expired(now);
  return count < m_expiries.size() ? std::optional(m_expiries[count]) : std::nullopt;
}

std::optional<Tool::AliasRule> RuleImage::rule(std::string_view sqlName,
                                               std::string_view key) const {
  const Found found = find(sqlName, key);
  if (!found.isKnown) return std::nullopt;
  if (found.row == AddressIndex::s_none) return Tool::AliasRule();
  return s_rule(m_rows.second(found.row));
}

}  // namespace Tessel::Serve
