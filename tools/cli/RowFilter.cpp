// Which rows of a table a command shows or edits.
#include "cli/RowFilter.h"

#include <fnmatch.h>

#include <cstdint>
#include <limits>

#include "cli/AddressInput.h"
#include "cli/RowReport.h"
#include "database/Connection.h"
#include "tables/AddressKey.h"
#include "tables/HistoryReader.h"
#include "tables/HistoryRows.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

RowFilter::RowFilter(const RowFilterOptions& options, const std::string& table)
    : m_domain(options.domain.empty() ? "" : parseDomain(options.domain)),
      m_pattern(options.match),
      m_key(comparisonKey(options.match.value_or(""))) {
  if (options.changedSince) {
    readChanges(parsePastTime("--changed-since", *options.changedSince), table);
  }
}

void RowFilter::readChanges(const std::string& since, const std::string& table) {
  m_changed.emplace();
  Database::Connection connection{std::string(s_database)};
  HistoryReader reader(connection);
  warnOfBegin(reader, since);
  const auto first = reader.firstSince(since);
  if (!first) return;
  const auto take = [&](std::uint64_t /*number*/, const RowChange& row) {
    if (isRow(row) && tableOf(row) == table) m_changed->insert(comparisonKey(addressOf(row)));
  };
  reader.forEachRow(*first, std::numeric_limits<std::int64_t>::max(), take);
}

bool RowFilter::hasChanged(const std::string& key) const {
  return m_changed->contains(comparisonKey(key));
}

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
  command.option("--changed-since", options.changedSince, "TIME",
                 "Only rows that have been added or changed since then, by the history: a time as"
                 " 'history --since' takes it");
}

}  // namespace Tessel::Tool
