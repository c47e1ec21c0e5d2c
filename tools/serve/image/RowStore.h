// The rows of a table in memory, as the server has them.
#ifndef TSL_TOOLS_SERVE_IMAGE_ROWSTORE_H
#define TSL_TOOLS_SERVE_IMAGE_ROWSTORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace Tessel::Serve {

// The two columns of a row; valid during the call only.
using TakeRow = std::function<void(std::string_view first, std::string_view second)>;

// Hands over the rows of a table, one call each, in the table's order. Throws what reading throws.
using RowSource = std::function<void(const TakeRow&)>;

// Rows of two texts in large blocks of memory: a row costs its length and 16 bytes, and is never
// moved. Numbers count from 0 in the order of adding. While nothing adds rows any thread may read.
class RowStore {
 public:
  using Id = std::uint32_t;

  // Throws std::length_error for too many rows, or a text of 4 GiB.
  Id add(std::string_view first, std::string_view second);
  // The columns of row `id`, which must be there; valid as long as the object.
  [[nodiscard]] std::string_view first(Id id) const;
  [[nodiscard]] std::string_view second(Id id) const;
  [[nodiscard]] Id size() const noexcept { return static_cast<Id>(m_rows.size()); }
  // Bytes of memory that the rows take.
  [[nodiscard]] std::size_t bytes() const noexcept {
    return m_bytes + m_rows.capacity() * sizeof(Row);
  }
  // Gives back the room that was kept for more rows.
  void shrink() { m_rows.shrink_to_fit(); }

 private:
  struct Row {
    const char* text;  // Both columns, one after the other.
    std::uint32_t firstSize;
    std::uint32_t secondSize;
  };

  // Room for `size` bytes.
  char* allocate(std::size_t size);

  std::vector<std::unique_ptr<char[]>> m_blocks;
  char* m_free = nullptr;  // The rest of the last block.
  std::size_t m_freeSize = 0;
  std::size_t m_bytes = 0;  // Of the blocks.
  std::vector<Row> m_rows;
};

}  // namespace Tessel::Serve

#endif
