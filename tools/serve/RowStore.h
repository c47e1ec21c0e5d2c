// The rows of a table in memory, as the server has them.
#ifndef TSL_TOOLS_SERVE_ROWSTORE_H
#define TSL_TOOLS_SERVE_ROWSTORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Tessel::Serve {

// The two columns of a row; valid during the call only.
using TakeRow = std::function<void(std::string_view first, std::string_view second)>;

// Hands over the rows of a table, one call each, in the table's order. Throws what reading throws.
using RowSource = std::function<void(const TakeRow&)>;

// Rows of two texts, one block for all of them: a row costs its length and 16 bytes. Numbers count
// from 0 in the order of adding. While nothing adds rows any thread may read.
class RowStore {
 public:
  using Id = std::uint32_t;

  // Throws std::length_error when there are too many.
  Id add(std::string_view first, std::string_view second);
  // The columns of row `id`, which must be there; valid until the next `add`.
  [[nodiscard]] std::string_view first(Id id) const;
  [[nodiscard]] std::string_view second(Id id) const;
  [[nodiscard]] Id size() const noexcept { return static_cast<Id>(m_ends.size()); }
  // Gives back the room that was kept for more rows.
  void shrink();

 private:
  struct Ends {
    std::size_t first;
    std::size_t second;
  };

  std::string m_texts;
  std::vector<Ends> m_ends;
};

}  // namespace Tessel::Serve

#endif
