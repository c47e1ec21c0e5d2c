// The check of the rules of one alias table.
#ifndef TSL_TOOLS_CHECK_RULECHECK_H
#define TSL_TOOLS_CHECK_RULECHECK_H

#include <chrono>
#include <string>

#include "check/Findings.h"
#include "database/Connection.h"
#include "tables/AliasGraph.h"

namespace Tessel::Tool {

// Adds to `findings` what is worth a look in the rules of the SQL table `table`, whose aliases are
// `graph`, at the time `now`; nothing when the database has no table of rules. Throws Exception
// when it cannot answer.
void checkRules(Database::Connection& connection, const std::string& table, const AliasGraph& graph,
                std::chrono::sys_seconds now, Findings& findings);

}  // namespace Tessel::Tool

#endif
