// The rows that an input of the row target represents, and a stored result that holds them.
#ifndef TSL_FUZZ_ROWINPUT_H
#define TSL_FUZZ_ROWINPUT_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database/DbResult.h"

namespace Tessel::Fuzz {

using Cell = std::optional<std::string>;  // Nothing for SQL NULL.
using Cells = std::vector<Cell>;

// The first byte of an input gives the number of columns, 1 to 4. The cells follow, row by row,
// with the byte 0x1e between them; a cell of the one byte 0x1d is SQL NULL, and so is what is
// missing in the last row.
inline std::vector<Cells> rowsOf(std::string_view input) {
  std::vector<Cells> rows;
  if (input.empty()) return rows;
  const std::size_t columns = static_cast<unsigned char>(input.front()) % 4U + 1;
  input.remove_prefix(1);
  for (;;) {
    const std::size_t end = input.find('\x1e');
    const std::string_view cell = input.substr(0, end);
    if (rows.empty() || rows.back().size() == columns) rows.emplace_back();
    rows.back().push_back(cell == "\x1d" ? Cell() : Cell(cell));
    if (end == std::string_view::npos) break;
    input.remove_prefix(end + 1);
  }
  rows.back().resize(columns);
  return rows;
}

// `rows` in memory as the client library keeps a stored result, so that the library's own functions
// read them: the texts of a row in one block, a NUL behind each, and a pointer to their end. Here
// each row has a block of its own, so that a sanitizer sees what is read outside it. One thread.
class StoredResult {
 public:
  // All of `rows` have the same number of columns, at least one.
  explicit StoredResult(const std::vector<Cells>& rows)
      : m_lengths(rows.front().size() + 1), m_nodes(rows.size()), m_fields(rows.size()) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
      store(rows[i], m_fields[i]);
      m_nodes[i].data = m_fields[i].data();
      if (i > 0) m_nodes[i - 1].next = &m_nodes[i];
    }
    m_data.data = m_nodes.data();
    m_data.rows = rows.size();
    m_data.fields = static_cast<unsigned int>(rows.front().size());
    m_result.row_count = m_data.rows;
    m_result.field_count = m_data.fields;
    m_result.data = &m_data;
    m_result.data_cursor = m_data.data;
    m_result.lengths = m_lengths.data();
    m_result.eof = 1;
  }
  StoredResult(const StoredResult&) = delete;
  StoredResult& operator=(const StoredResult&) = delete;

  // What row parsers take as the result, from its first row on.
  void* result() {
    mysql_data_seek(&m_result, 0);
    m_read = std::make_unique<Database::DbResult>(&m_result);
    return m_read.get();
  }

 private:
  void store(const Cells& cells, std::vector<char*>& fields) {
    std::size_t size = 0;
    for (const Cell& cell : cells) size += cell ? cell->size() + 1 : 0;
    m_texts.push_back(std::make_unique<char[]>(size));
    char* end = m_texts.back().get();
    for (const Cell& cell : cells) {
      fields.push_back(cell ? end : nullptr);
      if (cell) end += cell->copy(end, cell->size()) + 1;
    }
    fields.push_back(end);
  }

  std::vector<unsigned long> m_lengths;
  std::vector<MYSQL_ROWS> m_nodes;
  std::vector<std::vector<char*>> m_fields;
  std::vector<std::unique_ptr<char[]>> m_texts;
  MYSQL_DATA m_data{};
  MYSQL_RES m_result{};
  std::unique_ptr<Database::DbResult> m_read;
};

}  // namespace Tessel::Fuzz

#endif
