// The rows of a table whose address is another spelling of a given one.
#include "tables/SpellingSearch.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/stringCompareNoCase.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/RowReader.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// Of texts that may differ from their key in more than the collation ignores: other characters than
// those of plain addresses, and domains in Punycode. The server compares by the collation here,
// too, so capitals are among them where it does not ignore letter case.
constexpr const char* s_unusual = "'[^a-z0-9@.+_=-]|xn--'";

constexpr std::chrono::seconds s_kept{2};

// Keys of one statement.
constexpr std::size_t s_keysPerStatement = 500;

// The key of the address that the row text `text` is; empty when it has none.
std::string s_keyOf(std::string_view text) {
  // A column of a mask table, or the key of an alias table: all are read alike.
  RowReader reader(TableKind::Mask);
  std::string key;
  if (reader.readKey(text) != RowFault::None || !addressKey(reader.key(), key)) return "";
  return key;
}

}  // namespace

SpellingSearch::SpellingSearch(Database::Connection& connection, std::string table,
                               std::string column)
    : m_connection(connection), m_table(std::move(table)), m_column(std::move(column)) {}

std::vector<std::string> SpellingSearch::spellingsOf(std::string_view text) {
  std::vector<std::string> texts;
  std::string key;
  if (!addressKey(text, key)) return texts;
  for (auto& [asked, spelling] : spellingsOf(std::vector<std::string>{key})) {
    texts.push_back(std::move(spelling));
  }
  const std::string statement =
      "select " + m_column + " from " + m_table + " where " + m_column + "=" + literal(key) + ";";
  for (const TextRow& row : selectTexts(m_connection, statement, 1)) {
    // The collation may find more than was asked for, and what was found already.
    const bool isNew = std::find(texts.begin(), texts.end(), row[0]) == texts.end();
    if (isNew && s_keyOf(row[0]) == key) texts.push_back(row[0]);
  }
  return texts;
}

std::multimap<std::string, std::string> SpellingSearch::spellingsOf(
    const std::vector<std::string>& texts) {
  if (std::chrono::steady_clock::now() - m_read > s_kept) readUnusual();
  std::multimap<std::string, std::string> found;
  std::map<std::string, std::string> byKey;  // Texts that the server does not find by their keys.
  std::string keys;
  const auto ask = [&] {
    if (keys.empty()) return;
    const std::string statement = "select " + m_column + " from " + m_table + " where " + m_column +
                                  " in( " + std::exchange(keys, "") + " );";
    for (const TextRow& row : selectTexts(m_connection, statement, 1)) {
      const auto text = byKey.find(s_keyOf(row[0]));
      if (text != byKey.end() && !isUnusual(text->first, row[0])) {
        found.emplace(text->second, row[0]);
      }
    }
    byKey.clear();
  };
  std::string key;
  for (const std::string& text : texts) {
    if (!addressKey(text, key)) continue;
    const auto [first, end] = m_unusual.equal_range(key);
    for (auto unusual = first; unusual != end; ++unusual) found.emplace(text, unusual->second);
    if (m_isCaseSensitive ? text == key : stringCompareNoCase(text, key, 0)) continue;
    byKey.emplace(key, text);
    keys += (keys.empty() ? "" : ",") + literal(key);
    if (byKey.size() == s_keysPerStatement) ask();
  }
  ask();
  return found;
}

bool SpellingSearch::isUnusual(const std::string& key, const std::string& text) const {
  const auto [first, end] = m_unusual.equal_range(key);
  return std::any_of(first, end, [&text](const auto& one) { return one.second == text; });
}

void SpellingSearch::readUnusual() {
  m_unusual.clear();
  m_isCaseSensitive = isCaseSensitive(m_connection, m_table, m_column);
  const std::string statement = "select " + m_column + " from " + m_table + " where " + m_column +
                                " regexp " + s_unusual + ";";
  for (TextRow& row : selectTexts(m_connection, statement, 1)) {
    std::string key = s_keyOf(row[0]);
    if (!key.empty()) m_unusual.emplace(std::move(key), std::move(row[0]));
  }
  m_read = std::chrono::steady_clock::now();
}

bool isCaseSensitive(Database::Connection& connection, const std::string& table,
                     const std::string& column) {
  // A view has no other way to say it. Without rows nothing is found anyhow.
  const std::string statement = "select collation( " + column + " ) from " + table + " limit 1;";
  for (const TextRow& row : selectTexts(connection, statement, 1)) {
    return row[0].ends_with("bin") || row[0] == "binary" || row[0].ends_with("_cs");
  }
  return false;
}

std::string domainCondition(const std::string& column, const std::string& domain) {
  const auto endsIn = [&column](const std::string& end) {
    std::string pattern = "%@";
    for (const char c : end) {
      if (c == '%' || c == '_' || c == '\\') pattern += '\\';
      pattern += c;
    }
    return column + " like " + literal(pattern);
  };
  return "( " + endsIn(domain) + " or " + endsIn(comparisonDomain(domain)) + " or " + column +
         " regexp " + s_unusual + " )";
}

bool isOfDomain(std::string_view text, std::string_view key) {
  return key.empty() || comparisonDomain(domainOf(text)) == key;
}

}  // namespace Tessel::Tool
