// The check of one mask table.
#ifndef TSL_TOOLS_CHECK_MASKCHECK_H
#define TSL_TOOLS_CHECK_MASKCHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "check/Findings.h"
#include "database/Connection.h"
#include "tables/MailUsers.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

// Adds to `findings` what is wrong with the rows of the SQL table `table`: rows that the library
// cannot use, addresses that two rows have, wildcard rows that conflict, chains of pairs, and
// private addresses that are neither users nor aliases of one of `aliasTables`, which must be known
// to be safe. Returns the number of rows, which `count` is called with. Throws Exception when the
// database cannot answer.
std::uint64_t checkMaskTable(Database::Connection& connection, const std::string& table,
                             const std::vector<std::string>& aliasTables, MailUsers& users,
                             Findings& findings, const CountRows& count);

}  // namespace Tessel::Tool

#endif
