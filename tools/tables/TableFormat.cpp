// The two kinds of table as the table files see them.
#include "tables/TableFormat.h"

namespace Tessel::Tool {

const TableFormat& TableFormat::alias() {
  static constexpr TableFormat s_format{TableKind::Alias, "name", "members", false};
  return s_format;
}

const TableFormat& TableFormat::mask() {
  static constexpr TableFormat s_format{TableKind::Mask, "private", "public", true};
  return s_format;
}

std::optional<Fault> readEntry(RowReader& reader, std::string_view key, std::string_view value,
                               TableEntry& entry) {
  const RowFault fault = reader.read(key, value);
  if (fault != RowFault::None) return Fault{fault, reader.why()};
  entry.key = reader.keyAddress();
  entry.values = reader.valueAddresses();
  return std::nullopt;
}

std::size_t endOfKey(std::string_view line) {
  bool quoted = false;
  bool literal = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == '[' || c == ']')) {
      literal = c == '[';
    } else if (c == ':' && !quoted && !literal) {
      return i;
    }
  }
  return std::string_view::npos;
}

}  // namespace Tessel::Tool
