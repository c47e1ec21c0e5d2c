// Which rows of a table a command shows or edits.
#include "cli/RowFilter.h"

#include <fnmatch.h>

#include "cli/AddressInput.h"
#include "tables/AddressKey.h"

namespace Tessel::Tool {

RowFilter::RowFilter(const RowFilterOptions& options)
    : m_domain(options.domain.empty() ? "" : parseDomain(options.domain)),
      m_pattern(options.match),
      m_key(comparisonKey(options.match.value_or(""))) {}

bool RowFilter::matches(const std::string& address) const {
  // A pattern that is an address with a "*" has a key: then every spelling matches.
  return fnmatch(m_pattern->c_str(), address.c_str(), FNM_CASEFOLD) == 0 ||
         fnmatch(m_key.c_str(), comparisonKey(address).c_str(), 0) == 0;
}

void addRowFilter(Command& command, RowFilterOptions& options, const TableFormat& format) {
  command.option("--domain", options.domain, "DOMAIN",
                 format.hasPublic ? "Only private addresses of this domain"
                                  : "Only the aliases of this domain");
  command.option("--match", options.match, "PATTERN",
                 std::string("Only where the ") +
                     (format.hasPublic ? "private or the public address" : "alias or a member") +
                     " as a whole matches the pattern of the shell, in any letter case:"
                     " '*sales*', '*@example.com'");
}

}  // namespace Tessel::Tool
