// The check of one mask table.
#ifndef TSL_TOOLS_CHECK_MASKCHECK_H
#define TSL_TOOLS_CHECK_MASKCHECK_H

#include <cstdint>
#include <string>

#include "check/Findings.h"
#include "database/Connection.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

// Adds to `findings` what is wrong with the rows of the SQL table `table`: rows that the library
// cannot use, addresses that two rows have, wildcard rows that are in each other's way, and chains
// of pairs. The number of rows, which `progress` counts. Throws Exception when the database cannot
// answer.
std::uint64_t checkMaskTable(Database::Connection& connection, const std::string& table,
                             Findings& findings, Progress& progress);

}  // namespace Tessel::Tool

#endif
