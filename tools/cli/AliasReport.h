// What the alias commands say in common: addresses as text and JSON, and rows that are missing or
// broken.
#ifndef TSL_TOOLS_CLI_ALIASREPORT_H
#define TSL_TOOLS_CLI_ALIASREPORT_H

#include <set>
#include <string>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "cli/Session.h"
#include "failure/Failure.h"
#include "tables/AliasTable.h"

namespace Tessel::Tool {

// The addresses as a list of texts.
Json jsonOf(const std::set<EmailAddress>& addresses);

// Reports that the table has no alias `alias`.
void sayNoAlias(const EmailAddress& alias, const Session& session);

// The failure that the broken row `row` of the SQL table `table` is.
Failure brokenRow(const AliasRow& row, const std::string& table);

// Turns `exception`, thrown while the library read the table, into a failure after naming the rows
// that cannot be read, when it is those that it is about. Throws the failure, or again what is
// being handled. Requires: called in the handler of `exception`.
[[noreturn]] void nameTableFault(const Exception& exception, const Session& session);

// Calls `ask`, which reads the table through the library, and names the rows that it fails at.
template <class Ask>
void withTableFaultsNamed(const Session& session, Ask ask) {
  try {
    ask();
  } catch (const Exception& exception) {
    nameTableFault(exception, session);
  }
}

}  // namespace Tessel::Tool

#endif
