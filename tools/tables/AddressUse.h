// The rows of tables that lead to an address.
#ifndef TSL_TOOLS_TABLES_ADDRESSUSE_H
#define TSL_TOOLS_TABLES_ADDRESSUSE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

// True when `text` is the address with the comparisonKey() `key`, or that with an extension: mail
// for it reaches that address.
bool leadsTo(std::string_view text, const std::string& key);

// A row that leads to an address: an alias and the member, or the private address, which leads to
// it, and its public one. Texts as they are in the table.
struct AddressUse {
  std::string key;
  std::string value;
};

// The rows of the SQL table `table`, which may be any text, that lead to `address` in any spelling,
// and wildcard rows never. Broken rows are left out. Throws Exception when the database cannot
// answer.
std::vector<AddressUse> usesOf(std::string_view address, Database::Connection& connection,
                               const std::string& table, TableKind kind);

// How many rows of the SQL table `table` are of `domain` in any spelling: aliases, or masks on
// either side. Throws Exception when the database cannot answer.
std::size_t rowsOfDomain(const std::string& domain, Database::Connection& connection,
                         const std::string& table, TableKind kind);

}  // namespace Tessel::Tool

#endif
