// The two kinds of table as the table files see them: the columns, and one row as a line.
#ifndef TSL_TOOLS_TABLES_TABLEFORMAT_H
#define TSL_TOOLS_TABLES_TABLEFORMAT_H

#include <string>
#include <string_view>

#include "address/EmailAddress.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

// One row of a good table or line of a good file.
struct TableEntry {
  EmailAddress key;    // The alias, or the private address.
  EmailAddress shown;  // The public address; null for an alias.
  std::string value;   // The members in ascending order, joined by ",", or the public address.

  // The line without its end: "KEY:VALUE".
  [[nodiscard]] std::string line() const { return key.address() + ":" + value; }
};

// What distinguishes the kinds of table.
struct TableFormat {
  TableKind kind;
  const char* key;  // The columns.
  const char* value;
  bool hasPublic;  // The value is one address that no other row may have.

  static const TableFormat& alias();
  static const TableFormat& mask();

  // Reads the texts of a row, stored or of a line. Returns what is wrong, or empty text.
  std::string read(std::string_view keyText, std::string_view valueText, TableEntry& entry) const;
  // Reads a line without its end. Returns what is wrong, or empty text.
  std::string readLine(std::string_view line, TableEntry& entry) const;
};

// Where the colon is that ends the key of `line`: the first one that is in neither a quoted local
// part nor an address literal. npos when there is none.
std::size_t endOfKey(std::string_view line);

}  // namespace Tessel::Tool

#endif
