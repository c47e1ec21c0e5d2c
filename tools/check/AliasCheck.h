// The check of one alias table.
#ifndef TSL_TOOLS_CHECK_ALIASCHECK_H
#define TSL_TOOLS_CHECK_ALIASCHECK_H

#include <cstdint>
#include <string>

#include "check/Findings.h"
#include "database/Connection.h"
#include "tables/MailUsers.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

// Adds to `findings` what is wrong with the rows of the SQL table `table`: rows that the library
// cannot use, members that nobody has, aliases that lead nowhere, and all-users markers without
// effect. `widest` is the size of the column of the members in bytes. Returns the number of rows,
// which `count` is called with. Throws Exception when the database cannot answer.
std::uint64_t checkAliasTable(Database::Connection& connection, const std::string& table,
                              std::size_t widest, MailUsers& users, Findings& findings,
                              const CountRows& count);

}  // namespace Tessel::Tool

#endif
