// The two kinds of table as the table files see them: the columns, and one row.
#ifndef TSL_TOOLS_TABLES_TABLEFORMAT_H
#define TSL_TOOLS_TABLES_TABLEFORMAT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"
#include "tables/RowReader.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

// One row of a good table or line of a good file.
struct TableEntry {
  EmailAddress key;  // The alias, or the private address.
  // The members in ascending order, each once, or the one public address.
  std::vector<EmailAddress> values;

  // The value as it is written.
  [[nodiscard]] std::string value() const { return joined(values); }
  // The line without its end: "KEY:VALUE".
  [[nodiscard]] std::string line() const { return key.address() + ":" + value(); }
};

// What distinguishes the kinds of table.
struct TableFormat {
  TableKind kind;
  const char* key;  // The columns.
  const char* value;
  bool hasPublic;  // The value is one address that no other row may have.

  static const TableFormat& alias();
  static const TableFormat& mask();
};

// Reads the texts of a row, stored or of a line. Returns what is wrong, if anything is.
std::optional<Fault> readEntry(RowReader& reader, std::string_view key, std::string_view value,
                               TableEntry& entry);

// How a row with the texts `key` and `value` becomes `now`, for people: "KEY:OLD -> NEW". Where
// there are many members, those that stay are only counted. Empty when nothing changes.
std::string changeOf(std::string_view key, std::string_view value, const TableEntry& now);

// Where the colon is that ends the key of `line`: the first one that is in neither a quoted local
// part nor an address literal. npos when there is none.
std::size_t endOfKey(std::string_view line);

}  // namespace Tessel::Tool

#endif
