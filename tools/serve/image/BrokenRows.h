// The rows that an image leaves out, because they cannot be read.
#ifndef TSL_TOOLS_SERVE_IMAGE_BROKENROWS_H
#define TSL_TOOLS_SERVE_IMAGE_BROKENROWS_H

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "serve/image/RowStore.h"

namespace Tessel::Serve {

// Any thread may read while nothing adds.
class BrokenRows {
 public:
  struct Row {
    std::string name;  // The first column, as it is in the table.
    std::string why;
  };

  // Adds a row. `key` is the key of its first address; empty when it has none.
  void add(std::string_view first, std::string_view second, const std::string& why,
           const std::string& key);

  [[nodiscard]] std::size_t count() const noexcept { return m_rows.size(); }
  // All of them, as they are in the table: reading them again leaves them out again.
  [[nodiscard]] const RowStore& rows() const noexcept { return m_rows; }
  // The first of them: enough to find out what is wrong with a table.
  [[nodiscard]] const std::vector<Row>& first() const noexcept { return m_first; }
  // True when there are addresses whose rows are unknown.
  [[nodiscard]] bool hasKeys() const noexcept { return !m_keys.empty(); }
  // True when the row of the address with `key` is one of them: what it leads to is unknown.
  [[nodiscard]] bool hasKey(std::string_view key) const { return m_keys.contains(key); }

 private:
  RowStore m_rows;
  std::vector<Row> m_first;
  std::set<std::string, std::less<>> m_keys;
};

}  // namespace Tessel::Serve

#endif
