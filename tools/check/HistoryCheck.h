// Which rows are not as the history has them: other programs have changed those.
#ifndef TSL_TOOLS_CHECK_HISTORYCHECK_H
#define TSL_TOOLS_CHECK_HISTORYCHECK_H

#include <string>
#include <vector>

#include "check/Findings.h"
#include "database/Connection.h"

namespace Tessel::Tool {

// Compares the rows of `tables`, SQL names of tables that are there, with what was last recorded of
// them, and adds what it finds. Rows from before the history began are only counted. Throws
// Exception when the database cannot answer, and Failure when it has no history.
void checkHistory(Database::Connection& connection, const std::vector<std::string>& tables,
                  Findings& findings);

}  // namespace Tessel::Tool

#endif
