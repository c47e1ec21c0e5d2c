// Reading of the table files.
#include "map/ColonLines.h"

#include <vector>

namespace Tessel {

namespace {

// Bytes of a line, its terminating NUL included.
constexpr std::size_t s_lineBuffer = 16384;

}  // namespace

void forEachColonLine(std::istream& stream,
                      const std::function<void(std::string_view, std::string_view)>& take) {
  std::vector<char> buffer(s_lineBuffer);
  while (true) {
    stream.getline(buffer.data(), static_cast<std::streamsize>(buffer.size()), '\n');
    // gcount counts a line feed that was taken; getline put a NUL in its place.
    const auto length = static_cast<std::size_t>(stream.gcount());
    if (length == 0) return;
    const std::string_view line(buffer.data(), length);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    take(line.substr(0, colon), line.substr(colon + 1));
  }
}

}  // namespace Tessel
