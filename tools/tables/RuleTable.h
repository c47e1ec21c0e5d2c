// The rules of the aliases of one table, as the server has them.
#ifndef TSL_TOOLS_TABLES_RULETABLE_H
#define TSL_TOOLS_TABLES_RULETABLE_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "database/Connection.h"
#include "tables/AliasRule.h"
#include "tables/History.h"
#include "tables/SpellingSearch.h"

namespace Tessel::Tool {

// A row of the table `rules`.
struct RuleRow {
  std::string name;               // The alias, as it is there; empty for the rule of the table.
  std::optional<AliasRule> rule;  // Nothing when it cannot be read.
};

// "rule of team@example.com: writers=members", for people.
std::string textOf(const RuleRow& row);

// Over a connection that it shares with whoever changes the aliases, so that one transaction can
// change both. Where the database has no table `rules`, there are none. Failures of the database
// pass as Exception. One thread.
class RuleTable {
 public:
  // `connection` must outlive the object; `table` is the SQL name of the table of aliases.
  RuleTable(Database::Connection& connection, std::string table);

  // False when the database has no table of rules.
  bool isThere();

  // The rule of `alias` in any spelling; of the table where `alias` is null.
  std::optional<RuleRow> look(const EmailAddress& alias);

  // All rules of the table of aliases, its own first, or those of `domain` in any spelling where it
  // is not empty.
  std::vector<RuleRow> rows(const std::string& domain = "");

  // The rules of all aliases that have one, on one line each, by the comparisonKey() of the alias.
  std::map<std::string, std::string> texts();

  // Adds the rule with the name `name`, or replaces it, as a part of `change`, which must be on the
  // same connection. Throws Failure where there is no table.
  void set(RecordedChange& change, const std::string& name, const AliasRule& rule);

  // Removes the rule with the name `name`, likewise. False when there is none.
  bool remove(RecordedChange& change, const std::string& name);
  // Removes the rules of `aliases`, whose rows have gone, likewise; how many there were.
  std::size_t removeAll(RecordedChange& change, const std::vector<std::string>& aliases);

 private:
  [[nodiscard]] std::string where(const std::string& name) const;
  std::vector<RuleRow> select(const std::string& condition);
  std::optional<std::string> textLocked(const std::string& name);
  std::vector<std::string> spellingsOf(const EmailAddress& alias);

  Database::Connection& m_connection;
  std::string m_table;
  SpellingSearch m_spellings;
};

}  // namespace Tessel::Tool

#endif
