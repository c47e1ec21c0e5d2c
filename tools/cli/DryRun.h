// The rows of a change, shown by --dry-run instead of changing them.
#ifndef TSL_TOOLS_CLI_DRYRUN_H
#define TSL_TOOLS_CLI_DRYRUN_H

#include <string>

#include "cli/Command.h"
#include "cli/Session.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// Adds the option --dry-run, which sets `dryRun`.
inline Option addDryRun(Command& command, bool& dryRun) {
  return command.flag("--dry-run", dryRun,
                      "Write nothing; show what would be added (+), changed (~) or removed (-)");
}

// Answers a change: with --json `document`, to which a dry run is noted; otherwise, in a dry run
// only, `line`, where it is not empty.
inline void answerChange(Session& session, Json document, const std::string& line, bool dryRun) {
  if (session.isJson()) {
    if (dryRun) document["dryRun"] = true;
    session.output().document(document);
    return;
  }
  if (dryRun && !line.empty()) session.output().line(printable(line));
}

}  // namespace Tessel::Tool

#endif
