// The rows of a table whose address is another spelling of a given one.
#ifndef TSL_TOOLS_TABLES_SPELLINGSEARCH_H
#define TSL_TOOLS_TABLES_SPELLINGSEARCH_H

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

// Finds texts of one column by the keys of their addresses (see AddressKey.h). The server finds
// most: texts that equal their key but for letter case, if the collation ignores that. The others,
// usually few, are read and kept for a moment; that takes the server 0.2 s per million rows. One
// thread.
class SpellingSearch {
 public:
  // `connection` must outlive the object. `column` is the key or the value column of `table`, an
  // SQL name, as TableNames.h has them; both must be known to be safe.
  SpellingSearch(Database::Connection& connection, std::string table, std::string column);

  // The texts of the column whose addresses have the key of the address `text`. Throws Exception
  // when the database cannot answer.
  std::vector<std::string> spellingsOf(std::string_view text);

  // By the texts `texts` of addresses, likewise; without those that the server takes for equal to
  // the text that was asked for.
  std::multimap<std::string, std::string> spellingsOf(const std::vector<std::string>& texts);

 private:
  using Spellings = std::multimap<std::string, std::string, std::less<>>;

  void readUnusual();
  // True if `text`, whose key is `key`, is among those that are kept.
  [[nodiscard]] bool isUnusual(const std::string& key, const std::string& text) const;

  Database::Connection& m_connection;
  std::string m_table;
  std::string m_column;
  // By their keys: the texts that differ from them in more than the collation ignores, and some
  // that do not.
  Spellings m_unusual;
  bool m_isCaseSensitive = false;                // The collation.
  std::chrono::steady_clock::time_point m_read;  // When; 0 for never.
};

// True if the collation of `column` of the table takes the letters of an address in another case
// for others. False for a table without rows. Throws Exception when the database cannot answer.
bool isCaseSensitive(Database::Connection& connection, const std::string& table,
                     const std::string& column);

// The condition of SQL for rows whose text in `column` may be an address of `domain` in any
// spelling. It is true for others, too: the key decides.
std::string domainCondition(const std::string& column, const std::string& domain);
// True when `text` is an address of the domain with this comparisonDomain(), and for all texts when
// `key` is empty.
bool isOfDomain(std::string_view text, std::string_view key);

}  // namespace Tessel::Tool

#endif
