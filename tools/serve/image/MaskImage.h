// An address-mask table in memory, from which requests are answered.
#ifndef TSL_TOOLS_SERVE_IMAGE_MASKIMAGE_H
#define TSL_TOOLS_SERVE_IMAGE_MASKIMAGE_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "serve/image/BrokenRows.h"
#include "serve/image/RowStore.h"
#include "tables/AddressIndex.h"

namespace Tessel::Serve {

// The rows never change. A row that cannot be read is left out. Of two rows with one address (see
// AddressKey.h) the first answers for it. Any thread may call any operation.
class MaskImage {
 public:
  // The way in which a table is asked.
  enum class Direction { ToPublic, ToPrivate };

  // Reads all rows of `source`: private and public address. Throws what `source` throws.
  explicit MaskImage(const RowSource& source);

  // The text of the address that the row of the address with `key` has for it; nothing when there
  // is no such row.
  [[nodiscard]] std::optional<std::string> find(Direction direction, std::string_view key) const;

  // The domain that the wildcard rows have for the domain with `key`. Where there are several, the
  // one that the library takes: towards private addresses the first in the order of bytes, towards
  // public ones that of the last row. Nothing when there is none.
  [[nodiscard]] std::optional<std::string> findDomain(Direction direction,
                                                      std::string_view key) const;

  // True when a row of the address with `key` cannot be read: what the table has for it is unknown.
  // The key of a wildcard row is "*@" and that of its domain.
  [[nodiscard]] bool isBroken(Direction direction, std::string_view key) const {
    return direction == Direction::ToPublic ? m_brokenRows.hasKey(key)
                                            : m_brokenPublic.contains(key);
  }

  // Bytes of memory that it takes, about.
  [[nodiscard]] std::size_t bytes() const noexcept {
    return m_rows.bytes() + m_byPrivate.bytes() + m_byPublic.bytes() + m_brokenRows.rows().bytes();
  }
  [[nodiscard]] const RowStore& rows() const noexcept { return m_rows; }
  [[nodiscard]] const BrokenRows& brokenRows() const noexcept { return m_brokenRows; }

 private:
  class Reader;

  using Domains = std::map<std::string, std::string, std::less<>>;

  // The plain rows, by one of their addresses.
  struct Index {
    [[nodiscard]] std::size_t bytes() const noexcept {
      return keys.bytes() + rows.capacity() * sizeof(rows.front());
    }

    Tool::AddressIndex keys;
    std::vector<RowStore::Id> rows;  // By the numbers of the keys.
  };

  RowStore m_rows;  // Also the wildcard rows.
  Index m_byPrivate;
  Index m_byPublic;
  Domains m_toPublic;       // By the key of the private domain.
  Domains m_toPrivate;      // By the key of the public domain.
  BrokenRows m_brokenRows;  // With the keys of private addresses.
  std::set<std::string, std::less<>> m_brokenPublic;
};

}  // namespace Tessel::Serve

#endif
