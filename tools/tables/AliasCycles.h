// Cycles that a change of alias tables would leave behind.
#ifndef TSL_TOOLS_TABLES_ALIASCYCLES_H
#define TSL_TOOLS_TABLES_ALIASCYCLES_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "tables/AliasTable.h"

namespace Tessel::Tool {

// Rows to be written: aliases with their members.
using AliasChanges = std::map<EmailAddress, std::set<EmailAddress>>;

// The cycles with a row of `changes` in them that `table` would have after `changes` were written:
// of each set of aliases that all lead to each other a shortest cycle through the first changed
// one, which stands at both ends. An alias that names itself is no cycle: it is delivered to. Asks
// for the rows that the changes lead to and no others. Throws Exception when the database cannot
// answer.
std::vector<std::vector<EmailAddress>> cyclesOf(AliasTable& table, const AliasChanges& changes);

// The addresses of a cycle as "a -> b -> a", the middle of a long one left out.
std::string textOf(const std::vector<std::string>& path);
std::string textOf(const std::vector<EmailAddress>& path);

}  // namespace Tessel::Tool

#endif
