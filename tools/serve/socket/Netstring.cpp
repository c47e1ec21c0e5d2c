// Reads and writes netstrings.
#include "serve/socket/Netstring.h"

namespace Tessel::Serve {

NetstringFrame parseNetstring(std::string_view buffer, std::size_t maxSize) noexcept {
  using State = NetstringFrame::State;
  std::size_t size = 0;
  std::size_t place = 0;
  for (; place < buffer.size() && buffer[place] != ':'; ++place) {
    const char c = buffer[place];
    if (c < '0' || c > '9') return {State::Malformed, 0, {}};
    if (place > 0 && buffer[0] == '0') return {State::Malformed, 0, {}};
    // Ends this loop after as many digits as `maxSize` has, before `size` can overflow.
    const auto digit = static_cast<std::size_t>(c - '0');
    if (digit > maxSize || size > (maxSize - digit) / 10) return {State::TooLong, 0, {}};
    size = size * 10 + digit;
  }
  if (place == buffer.size()) return {State::NeedMore, 0, {}};
  if (place == 0) return {State::Malformed, 0, {}};
  const std::string_view rest = buffer.substr(place + 1);
  if (rest.size() <= size) return {State::NeedMore, 0, {}};
  if (rest[size] != ',') return {State::Malformed, 0, {}};
  return {State::Frame, place + 1 + size + 1, rest.substr(0, size)};
}

void appendNetstring(std::string& out, std::string_view payload) {
  out += std::to_string(payload.size());
  out += ':';
  out += payload;
  out += ',';
}

}  // namespace Tessel::Serve
