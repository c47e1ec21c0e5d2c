// The tables of this tool, next to those of the library in the same database: the rules of aliases,
// and the history of changes. Their names begin with neither "alias" nor "mask", which the library
// would take for tables of its own.
#ifndef TSL_TOOLS_TABLES_OWNTABLES_H
#define TSL_TOOLS_TABLES_OWNTABLES_H

#include <set>
#include <string>
#include <vector>

#include "database/Connection.h"

namespace Tessel::Tool {

// One row for each alias that has a rule, see AliasRule.h.
inline constexpr char s_rules[] = "rules";
// One row for each change, and the rows that it changed.
inline constexpr char s_history[] = "history";
inline constexpr char s_historyRows[] = "history_rows";

// One thing that is missing in the selected database. It works without, as one that an older tool
// has prepared.
struct OwnStep {
  std::string table;
  std::string text;  // For people: "create table rules".
  std::string statement;
};

// What is to be done about the tables, of which `present` are there. Nothing of it can lose data.
// Throws Exception when the tables cannot be described.
std::vector<OwnStep> missingOwnTables(Database::Connection& connection,
                                      const std::set<std::string>& present);

}  // namespace Tessel::Tool

#endif
