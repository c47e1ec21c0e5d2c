// The rows of a table in memory.
#include "serve/image/RowStore.h"

#include <algorithm>
#include <stdexcept>

#include "base/sizes.h"

namespace Tessel::Serve {

namespace {

// Blocks double from the first size to the last one: there may be thousands of small tables.
constexpr std::size_t s_firstBlockSize = 4_KiB;
constexpr std::size_t s_doublings = 8;

}  // namespace

RowStore::Id RowStore::add(std::string_view first, std::string_view second) {
  const Id id = size();
  if (id == UINT32_MAX - 1) throw std::length_error("more rows than numbers");
  if (first.size() > UINT32_MAX || second.size() > UINT32_MAX) {
    throw std::length_error("a text of 4 GiB");
  }
  char* const text = allocate(first.size() + second.size());
  first.copy(text, first.size());
  second.copy(text + first.size(), second.size());
  m_rows.push_back(
      {text, static_cast<std::uint32_t>(first.size()), static_cast<std::uint32_t>(second.size())});
  return id;
}

std::string_view RowStore::first(Id id) const {
  const Row& row = m_rows.at(id);
  return {row.text, row.firstSize};
}

std::string_view RowStore::second(Id id) const {
  const Row& row = m_rows.at(id);
  return {row.text + row.firstSize, row.secondSize};
}

char* RowStore::allocate(std::size_t size) {
  if (size > m_freeSize) {
    m_freeSize = std::max(size, s_firstBlockSize << std::min(m_blocks.size(), s_doublings));
    m_bytes += m_freeSize;
    m_blocks.push_back(std::make_unique_for_overwrite<char[]>(m_freeSize));
    m_free = m_blocks.back().get();
  }
  char* const text = m_free;
  m_free += size;
  m_freeSize -= size;
  return text;
}

}  // namespace Tessel::Serve
