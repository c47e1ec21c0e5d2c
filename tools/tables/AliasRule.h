// The rule of an alias: who may write to it, who may send as it, and until when it is there.
#ifndef TSL_TOOLS_TABLES_ALIASRULE_H
#define TSL_TOOLS_TABLES_ALIASRULE_H

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "address/EmailAddress.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

// Who may write to an alias.
enum class Writers {
  Anyone,
  Authenticated,  // Whoever has logged in.
  Domain,         // The users of its own domain.
  Members,        // Those it expands to.
  Listed,         // Those that the rule names, and those that named aliases expand to.
};

// "anyone", "authenticated" and so on: what people and the table call them. `parseWriters` gives
// nothing for other words.
const char* textOf(Writers writers);
std::optional<Writers> parseWriters(std::string_view text);

struct AliasRule {
  Writers writers = Writers::Anyone;
  std::set<EmailAddress> listed;
  std::set<EmailAddress> owners;  // Who may send as the alias.
  std::optional<std::chrono::sys_seconds> expires;
  std::string note;      // For people; one line.
  EmailAddress contact;  // Whom to ask; null for nobody.
};

// The columns of a row of the table `rules` after its key, in the order in which readRule() takes
// them.
inline constexpr char s_ruleColumns[] =
    "writers, listed, owners, ifnull( expires, '' ), note, contact";

// Reads these columns, which begin at `first` of `row`. Nothing when they are no rule, which only
// another program can have written: then nobody knows who may do what.
std::optional<AliasRule> readRule(const TextRow& row, std::size_t first);

// A time as the table, the commands and people have it: "2026-12-31 23:59:59", in UTC. A date alone
// is its first second. Nothing for another text.
std::string timeText(std::chrono::sys_seconds time);
std::optional<std::chrono::sys_seconds> parseTime(const std::string& text);

// The rule on one line, as exports and the history have it: "writers=members
// owners=ann@example.com,bob@example.com note=ask first", each word only where it says something,
// the note being the rest of the line. A "%" or a blank in an address is %25 or %20.
std::string ruleText(const AliasRule& rule);
// Reads such a line. Throws Failure, `BadData`.
AliasRule parseRule(const std::string& text);

}  // namespace Tessel::Tool

#endif
