// The rows that an image leaves out.
#include "serve/image/BrokenRows.h"

namespace Tessel::Serve {

namespace {

constexpr std::size_t s_mostKept = 100;

}  // namespace

void BrokenRows::add(std::string_view first, std::string_view second, const std::string& why,
                     const std::string& key) {
  m_rows.add(first, second);
  if (m_first.size() < s_mostKept) m_first.push_back({std::string(first), why});
  if (!key.empty()) m_keys.insert(key);
}

}  // namespace Tessel::Serve
