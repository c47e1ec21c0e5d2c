// What the mask commands say in common about rows that are broken.
#ifndef TSL_TOOLS_CLI_MASKREPORT_H
#define TSL_TOOLS_CLI_MASKREPORT_H

#include <string>

#include "base/Exception.h"
#include "cli/Session.h"
#include "failure/Failure.h"
#include "tables/MaskTable.h"

namespace Tessel::Tool {

// The failure that the broken row `row` of the SQL table `table` is.
Failure brokenMask(const MaskRow& row, const std::string& table);

// Turns `exception`, thrown while the library read the table, into a failure after naming the rows
// that cannot be read, when it is those that it is about. Throws the failure, or again what is
// being handled. Requires: called in the handler of `exception`.
[[noreturn]] void nameMaskFault(const Exception& exception, const Session& session);

}  // namespace Tessel::Tool

#endif
