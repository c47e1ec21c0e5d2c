// Rows of both kinds of table as lines of a file.
#include "tables/TableFormat.h"

#include <set>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "tables/AliasTable.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

// Calls `parse`. Returns what is wrong, with `what` before it, or empty text.
template <class Parse>
std::string s_fault(const char* what, Parse parse) {
  try {
    parse();
    return "";
  } catch (const Exception& exception) {
    return std::string("bad ") + what + ": " + reasonOf(exception);
  }
}

std::string s_readMembers(std::string_view text, TableEntry& entry) {
  std::set<EmailAddress> members;
  std::string fault =
      s_fault("members", [&] { members = EmailAddress::rfc5322ParseSet(text, true, false); });
  if (fault.empty() && members.empty()) return "the members are empty";
  entry.value = joined(members);
  return fault;
}

std::string s_readPublic(std::string_view text, TableEntry& entry) {
  std::string fault =
      s_fault("public address", [&] { entry.shown = EmailAddress::rfc5321Parse(text, false); });
  if (fault.empty() && entry.shown.isNull()) return "the public address is empty";
  entry.value = entry.shown.address();
  return fault;
}

}  // namespace

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
  // The parsers stop at a NUL, and would take the rest for nothing.
  if (keyText.find('\0') != std::string_view::npos ||
      valueText.find('\0') != std::string_view::npos) {
    return "it holds a NUL character";
  }
  const char* const what = hasPublic ? "private address" : "alias";
  const std::string fault =
      s_fault(what, [&] { entry.key = EmailAddress::rfc5321Parse(keyText, false); });
  if (!fault.empty()) return fault;
  if (entry.key.isNull()) return std::string("the ") + what + " is empty";
  return hasPublic ? s_readPublic(valueText, entry) : s_readMembers(valueText, entry);
}

std::string TableFormat::readLine(std::string_view line, TableEntry& entry) const {
  if (line.find('\0') != std::string_view::npos) return "it holds a NUL character";
  const std::size_t end = endOfKey(line);
  if (end == std::string_view::npos) return "there is no colon behind an address";
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
