// An address becomes another one, or goes, wherever the tables have it.
#ifndef TSL_TOOLS_TABLES_ADDRESSMOVE_H
#define TSL_TOOLS_TABLES_ADDRESSMOVE_H

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "address/EmailAddress.h"
#include "database/Connection.h"
#include "tables/History.h"
#include "tables/RuleTable.h"
#include "tables/TableFormat.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

// What becomes of an address: it stays, is another one, or goes where there is none.
using Becomes = std::function<std::optional<EmailAddress>(const EmailAddress&)>;

// The change of all rows of some tables: of aliases, masks and rules. One thread, together with the
// connection.
class AddressMove {
 public:
  // All must outlive the object. `tables` are SQL names, which must be known to be safe.
  AddressMove(Database::Connection& connection, const std::vector<std::string>& tables,
              Becomes becomes);

  // Reads the rows and works out what becomes of them; with `toWrite` they are locked until the end
  // of the transaction. An alias that is left empty goes, and so does its name as a member. Throws
  // Failure, `BadData`, when an address would be there twice, or aliases would lead back to
  // themselves.
  void plan(bool toWrite);

  [[nodiscard]] const std::vector<RowChange>& changes() const { return m_changes; }
  // The aliases that go because nothing is left of them.
  [[nodiscard]] const std::set<std::string>& emptied() const { return m_emptied; }
  // The rows that cannot be read, and stay: "row 'NAME' of table TABLE".
  [[nodiscard]] const std::vector<std::string>& broken() const { return m_broken; }

  // Writes what plan() found.
  void write(RecordedChange& change);

 private:
  // A row, and what becomes of it.
  struct Row {
    const std::string* table;
    const TableFormat* format;
    std::string key;
    std::string value;
    TableEntry before;
    std::optional<TableEntry> after;

    [[nodiscard]] bool isChanged() const;
  };
  struct Rule {
    const std::string* table;
    RuleRow before;
    std::optional<RuleRow> after;
  };

  void read(const std::string& table, bool toWrite);
  [[nodiscard]] std::optional<EmailAddress> become(const std::string& table,
                                                   const EmailAddress& address) const;
  [[nodiscard]] std::optional<TableEntry> become(const std::string& table,
                                                 const TableEntry& entry) const;
  void moveRows();
  void moveRules();
  void refuseDoubles() const;
  void refuseLoops() const;
  using Places = std::unordered_map<std::string, const Row*>;  // By the comparisonKey() then.
  static bool wasLoop(const std::vector<std::string>& path, const Places& places);
  void note(const Row& row);

  Database::Connection& m_connection;
  const std::vector<std::string>& m_tables;
  Becomes m_becomes;
  std::vector<Row> m_rows;
  std::vector<Rule> m_rules;               // That change.
  std::unordered_set<std::string> m_gone;  // Aliases that are left empty, by table and key.
  std::set<std::string> m_emptied;
  std::vector<std::string> m_broken;
  std::vector<RowChange> m_changes;
};

}  // namespace Tessel::Tool

#endif
