// The rows of a table in memory.
#include "serve/RowStore.h"

#include <stdexcept>

namespace Tessel::Serve {

RowStore::Id RowStore::add(std::string_view first, std::string_view second) {
  const Id id = size();
  if (id == UINT32_MAX - 1) throw std::length_error("more rows than numbers");
  m_texts.append(first);
  const std::size_t middle = m_texts.size();
  m_texts.append(second);
  m_ends.push_back({middle, m_texts.size()});
  return id;
}

std::string_view RowStore::first(Id id) const {
  const std::size_t start = id == 0 ? 0 : m_ends.at(id - 1).second;
  return std::string_view(m_texts).substr(start, m_ends.at(id).first - start);
}

std::string_view RowStore::second(Id id) const {
  const Ends& ends = m_ends.at(id);
  return std::string_view(m_texts).substr(ends.first, ends.second - ends.first);
}

void RowStore::shrink() {
  m_texts.shrink_to_fit();
  m_ends.shrink_to_fit();
}

}  // namespace Tessel::Serve
