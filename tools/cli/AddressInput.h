// Addresses and domains as a person gives them: arguments of the command line, or lines of standard
// input.
#ifndef TSL_TOOLS_CLI_ADDRESSINPUT_H
#define TSL_TOOLS_CLI_ADDRESSINPUT_H

#include <functional>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// The address that the argument `text` is, with `allowNoDomain` also one without "@". Throws
// Failure, `BadData`, when it is none.
EmailAddress parseAddress(const std::string& text, bool allowNoDomain);

// The domain that the argument `text` is, fit for a `like` pattern but for "_". Throws Failure,
// `BadData`, when it is none or not fit.
std::string parseDomain(const std::string& text);

// The time that the argument `text` of the option or argument `name` is, as timeText() has it: such
// a text, or a date, "today", "yesterday", and "30m", "2h", "3d" or "1w" ago. In UTC. Throws
// Failure, `Usage`.
std::string parsePastTime(const std::string& name, const std::string& text);

// Calls `take` for each argument, and where it is "-" for each line of standard input that is not
// blank. A Failure that `take` throws for a line gets its place. Throws Failure when standard input
// cannot be read.
void forEachText(const std::vector<std::string>& arguments,
                 const std::function<void(const std::string&)>& take);

// True when one address is asked for on the command line: its answer needs no address in front.
bool isSingle(const std::vector<std::string>& arguments);

// Calls `answer` for each argument, and where it is "-" for each line of standard input, which is
// read as it is needed; blank lines are skipped. A text that is not an address throws Failure if it
// is the only one, and is otherwise reported with its place. Returns `Done`, or `BadData` when a
// text was reported. Throws Failure too when standard input cannot be read; exceptions of `answer`
// pass.
ExitCode forEachAddress(const std::vector<std::string>& arguments,
                        const std::function<void(const EmailAddress&)>& answer);

}  // namespace Tessel::Tool

#endif
