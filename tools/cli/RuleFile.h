// The rules of a table as a file, for the commands that write and read it.
#ifndef TSL_TOOLS_CLI_RULEFILE_H
#define TSL_TOOLS_CLI_RULEFILE_H

#include <string>

#include "cli/Session.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// Writes all rules of the table into the file; to standard output for "" and "-". Throws Failure
// when one cannot be read.
ExitCode exportRules(Session& session, const std::string& file);

// Adds the rules of the file, or changes them, all or none; "-" is standard input. With `replace`
// it removes those that the file does not mention. Throws Failure for bad lines.
ExitCode importRules(Session& session, const std::string& file, bool replace, bool dryRun);

}  // namespace Tessel::Tool

#endif
