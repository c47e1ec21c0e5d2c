// Comparison of texts without regard to ASCII letter case.
#include "base/stringCompareNoCase.h"

#include <algorithm>

namespace Tessel {

namespace {

constexpr char s_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

}  // namespace

bool stringCompareNoCase(std::string_view a, std::string_view b, std::size_t length) noexcept {
  if (length > 0) {
    a = a.substr(0, length);
    b = b.substr(0, length);
  }
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return s_lower(x) == s_lower(y); });
}

}  // namespace Tessel
