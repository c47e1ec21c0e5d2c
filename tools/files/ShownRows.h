// The rows of a table that a person is shown to change them, and what others do to them meanwhile.
#ifndef TSL_TOOLS_FILES_SHOWNROWS_H
#define TSL_TOOLS_FILES_SHOWNROWS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tables/TableFormat.h"

namespace Tessel::Tool {

// One thread.
class ShownRows {
 public:
  // Adds a row of the table by its texts; `entry` is how it is shown.
  void add(std::string_view key, std::string_view value, const TableEntry& entry);

  [[nodiscard]] std::size_t size() const { return m_rows.size(); }
  // True when a row with exactly this key is shown.
  [[nodiscard]] bool has(const std::string& key) const { return m_rows.contains(key); }
  // True when the row of `key` is shown as `entry`.
  [[nodiscard]] bool isUnchanged(const std::string& key, const TableEntry& entry) const;

  // Begins to compare them with the table.
  void begin();
  // Takes a row of the table; false when it is not one of these.
  bool meet(std::string_view key, std::string_view value);
  // Names those that are not in the table as they were. Throws Failure, `Unavailable`, when there
  // are any.
  void refuseChanged(const std::string& table);

 private:
  struct Row {
    std::string value;
    std::string line;  // As it is shown, where the texts are written otherwise.
    bool isMet = false;
  };

  std::unordered_map<std::string, Row> m_rows;
  std::vector<std::string> m_changed;  // Those that others have changed, in words.
};

}  // namespace Tessel::Tool

#endif
