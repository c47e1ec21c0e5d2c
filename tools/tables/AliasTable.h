// The rows of an alias table as the server has them, for what the library's answers leave open: is
// there a row behind an empty answer, is it broken, is it that of another address? And the safe
// write.
#ifndef TSL_TOOLS_TABLES_ALIASTABLE_H
#define TSL_TOOLS_TABLES_ALIASTABLE_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "database/Connection.h"
#include "tables/History.h"
#include "tables/RowReader.h"
#include "tables/RuleTable.h"
#include "tables/SpellingSearch.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

// One row, read without throwing.
struct AliasRow {
  std::string name;    // As it is in the table.
  std::string text;    // The members, as they are there.
  EmailAddress alias;  // Null where the name is none.
  std::set<EmailAddress> members;
  RowFault fault = RowFault::None;
  std::string why;  // The fault in words.
};

// What the table holds for an address.
struct AliasLook {
  enum class Kind {
    Absent,
    Present,  // `row` is the address's own row, whatever its state.
    Spelled,  // `row` is the address's row in another spelling (see AddressKey.h).
    Other,    // The server answers with `row`, whose name it considers equal, but which is of
              // another address.
  };

  Kind kind = Kind::Absent;
  AliasRow row;
  bool isInTheWay = false;  // The server considers the name of `row` equal to the address.
};

// An alias table, over its own connection. Failures of the database pass as Exception. One thread.
class AliasTable {
 public:
  // `table` is the SQL name, which must be known to be safe.
  explicit AliasTable(std::string table);

  // What the server finds for `address`.
  AliasLook look(const EmailAddress& address);

  // The same, with the row, or the gap where it would be, locked until the end of the transaction.
  AliasLook lookLocked(const EmailAddress& address);

  // The own rows of those of `addresses` that have one, whatever their states, by the address. Asks
  // for many with one statement.
  std::map<EmailAddress, AliasRow> look(const std::set<EmailAddress>& addresses);

  // The same, also in other spellings.
  std::map<EmailAddress, AliasRow> lookSpelled(const std::set<EmailAddress>& addresses);

  // The names of the rows of `addresses` in other spellings than these, by the address.
  std::multimap<std::string, std::string> spellingsOf(const std::set<EmailAddress>& addresses);

  // All rows, or those of `domain` in any spelling where it is not empty. In the order of
  // addresses, rows without a readable name first.
  std::vector<AliasRow> rows(const std::string& domain);

  // Calls `take` with the name and the members of each row, as they are there.
  void forEachRow(const TakePair& take);

  // All rows as rows() has them, locked until the end of the transaction.
  std::vector<AliasRow> rowsLocked();

  // Adds the alias, or replaces the members of an existing one, in transact(). Both texts are
  // escaped.
  void set(const EmailAddress& alias, const std::set<EmailAddress>& members);

  // Removes the row whose name in the table is exactly `name`, and its rule, likewise. True when it
  // had one.
  bool remove(const std::string& name);

  // The rules of the aliases, over the same connection.
  [[nodiscard]] RuleTable& rules() { return m_rules; }

  // Calls `edit` in a transaction, which is recorded and committed when it returns true and rolled
  // back otherwise. Repeats this when the server rolls the transaction back in favour of another
  // one, or the host fails, so `edit` must start from scratch each time. Exceptions of `edit` pass.
  void transact(const std::function<bool()>& edit);

  // What transact() commits, for further changes by the same `edit`.
  [[nodiscard]] RecordedChange& change() { return *m_change; }

 private:
  AliasLook look(const EmailAddress& address, const char* lock);
  std::vector<TextRow> lockedRow(const std::string& name);
  void lookSpelled(const EmailAddress& address, const char* lock, AliasLook& look);
  std::vector<AliasRow> rowsOf(const std::vector<std::string>& names);
  std::vector<AliasRow> select(const std::string& domain, const std::string& end);

  std::string m_table;
  Database::Connection m_connection;
  SpellingSearch m_spellings;
  RuleTable m_rules;
  RecordedChange* m_change = nullptr;  // While transact() runs.
};

}  // namespace Tessel::Tool

#endif
