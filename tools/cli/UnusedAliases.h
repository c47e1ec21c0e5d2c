// The aliases of a table that no mail server has asked for.
#ifndef TSL_TOOLS_CLI_UNUSEDALIASES_H
#define TSL_TOOLS_CLI_UNUSEDALIASES_H

#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "tables/SpellingIndex.h"

namespace Tessel::Tool {

// An alias that a used one leads to is used, too: the lookup service expands it, so no mail server
// asks for it. An immutable value.
class UnusedAliases {
 public:
  // Reads the SQL table `table`, and the files of lookup services; an alias is used if one of them
  // has it. Reports the time that they count for. Throws Failure when a file cannot be read, and
  // Exception when the database cannot answer. Requires: a file.
  UnusedAliases(const std::vector<std::string>& files, const std::string& table);

  // True unless the alias of the table is used.
  [[nodiscard]] bool has(const EmailAddress& alias) const;

 private:
  SpellingIndex m_used;
};

}  // namespace Tessel::Tool

#endif
