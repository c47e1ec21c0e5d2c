// Alias loops that a change of alias tables would leave behind.
#ifndef TSL_TOOLS_TABLES_ALIASCYCLES_H
#define TSL_TOOLS_TABLES_ALIASCYCLES_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "tables/AliasTable.h"

namespace Tessel::Tool {

// A row to be written: the members it will have, and those of them that are new.
struct AliasChange {
  std::set<EmailAddress> members;
  std::set<EmailAddress> added;
};

// An alias loop, the same alias at both ends.
struct AliasCycle {
  std::vector<EmailAddress> path;
  bool isNew;  // One of the added members closes it.
};

// The alias loop that `alias` would be in after `change` was written; nothing when there is none. A
// loop that an added member closes takes precedence. An alias that names itself is not a loop: it
// is delivered to. Asks for the rows that the change leads to and no others. Throws Exception when
// the database cannot answer.
std::optional<AliasCycle> cycleOf(AliasTable& table, const EmailAddress& alias,
                                  const AliasChange& change);

// The addresses of a loop as "a -> b -> a", the middle of a long one left out.
std::string textOf(const std::vector<std::string>& path);
std::string textOf(const std::vector<EmailAddress>& path);

}  // namespace Tessel::Tool

#endif
