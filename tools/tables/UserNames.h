// The mail users that the commands write: their kinds and their names.
#ifndef TSL_TOOLS_TABLES_USERNAMES_H
#define TSL_TOOLS_TABLES_USERNAMES_H

#include <cstdint>
#include <optional>
#include <string>

#include "address/EmailAddress.h"
#include "cmf/MailUser.h"
#include "cmf/Writer.h"

namespace Tessel::Tool {

// For the help of --kind.
inline constexpr char s_kindHelp[] =
    "user (1), disabled (0) or shared (2); only users belong to 'all users'";

// The kind that `text`, a name or a number, is; nothing when it is none.
std::optional<CMF::MailUserKind> userKindOf(const std::string& text);

// The same for the value of --kind. Throws Failure, `Usage`.
CMF::MailUserKind parseUserKind(const std::string& text);

// The name of the kind, or its number where it has none.
std::string userKindText(std::int32_t kind);

// Why `address` cannot be that of a mail user; empty text when it can. One that the library cannot
// read would keep all users of the domain from being listed.
std::string userFault(const EmailAddress& address);

// "added", "changed" or "unchanged".
const char* userResultText(CMF::Writer::UserResult result);

}  // namespace Tessel::Tool

#endif
