// Which rows of a table a command shows or edits: the options, and what they let through.
#ifndef TSL_TOOLS_CLI_ROWFILTER_H
#define TSL_TOOLS_CLI_ROWFILTER_H

#include <optional>
#include <string>
#include <unordered_set>

#include "address/EmailAddress.h"
#include "cli/Command.h"
#include "tables/TableFormat.h"

namespace Tessel::Tool {

// The options as they are given.
struct RowFilterOptions {
  std::string domain;
  std::optional<std::string> match;
  std::optional<std::string> changedSince;

  [[nodiscard]] bool isEmpty() const { return domain.empty() && !match && !changedSince; }
};

// Adds the options to a command for tables of `format`.
void addRowFilter(Command& command, RowFilterOptions& options, const TableFormat& format);

// One thread.
class RowFilter {
 public:
  // `table` is the SQL name. Throws Failure: `BadData` for what is no domain, `Usage` for what is
  // no time, `Configuration` where the history is needed and there is none; and Exception when the
  // database cannot answer.
  RowFilter(const RowFilterOptions& options, const std::string& table);

  // The domain that the keys must be of; empty for any.
  [[nodiscard]] const std::string& domain() const { return m_domain; }
  // True when the row of the domain with the key `key` and the addresses `values` is wanted.
  template <class Addresses>
  [[nodiscard]] bool takes(const std::string& key, const Addresses& values) const {
    if (m_changed && !hasChanged(key)) return false;
    if (!m_pattern || matches(key)) return true;
    for (const EmailAddress& value : values) {
      if (matches(value.address())) return true;
    }
    return false;
  }

 private:
  void readChanges(const std::string& since, const std::string& table);
  [[nodiscard]] bool hasChanged(const std::string& key) const;
  [[nodiscard]] bool matches(const std::string& address) const;

  std::string m_domain;
  std::optional<std::string> m_pattern;
  std::string m_key;  // The comparisonKey() of the pattern.
  // Of the rows that have changed, also their comparisonKey().
  std::optional<std::unordered_set<std::string>> m_changed;
};

}  // namespace Tessel::Tool

#endif
