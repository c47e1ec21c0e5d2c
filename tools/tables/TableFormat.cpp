// The two kinds of table as the table files see them.
#include "tables/TableFormat.h"

#include <algorithm>
#include <iterator>

namespace Tessel::Tool {

namespace {

// Members that stay, in a change that is shown with all of them.
constexpr std::size_t s_mostShown = 10;

}  // namespace

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

std::string changeOf(std::string_view key, std::string_view value, const TableEntry& now) {
  const std::string newKey = now.key.address();
  const std::string newValue = now.value();
  if (key == newKey && value == newValue) return "";
  std::string text = std::string(key) + ":";
  const std::string second = " -> " + (key == newKey ? "" : newKey + ":");
  RowReader reader(TableKind::Alias);
  std::vector<EmailAddress> old;
  if (reader.readValue(value) == RowFault::None) old = reader.valueAddresses();
  std::vector<EmailAddress> gone;
  std::vector<EmailAddress> come;
  std::set_difference(old.begin(), old.end(), now.values.begin(), now.values.end(),
                      std::back_inserter(gone));
  std::set_difference(now.values.begin(), now.values.end(), old.begin(), old.end(),
                      std::back_inserter(come));
  const std::size_t same = old.size() - gone.size();
  if (same <= s_mostShown || gone.size() + come.size() == 0) {
    return text.append(value) + second + newValue;
  }
  const std::string others = std::to_string(same) + " others";
  text += others + (gone.empty() ? "" : "," + joined(gone));
  return text + second + others + (come.empty() ? "" : "," + joined(come));
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
