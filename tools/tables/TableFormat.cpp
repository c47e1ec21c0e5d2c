// Rows of both kinds of table as lines of a file.
#include "tables/TableFormat.h"

#include "tables/RowReader.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

const TableFormat& TableFormat::alias() {
  static constexpr TableFormat s_format{TableKind::Alias, "name", "members", false};
  return s_format;
}

const TableFormat& TableFormat::mask() {
  static constexpr TableFormat s_format{TableKind::Mask, "private", "public", true};
  return s_format;
}

std::string TableFormat::read(std::string_view keyText, std::string_view valueText,
                              TableEntry& entry) const {
  RowReader reader(kind);
  if (reader.read(keyText, valueText) != RowFault::None) return reader.why();
  entry.key = reader.keyAddress();
  if (hasPublic) entry.shown = *reader.valueSet().begin();
  entry.value = reader.writtenValue();
  return "";
}

std::string TableFormat::readLine(std::string_view line, TableEntry& entry) const {
  if (line.find('\0') != std::string_view::npos) return "it contains a NUL character";
  const std::size_t end = endOfKey(line);
  if (end == std::string_view::npos) return "there is no colon after an address";
  return read(line.substr(0, end), line.substr(end + 1), entry);
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
