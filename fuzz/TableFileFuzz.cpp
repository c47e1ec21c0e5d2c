// Fuzz target of alias and mask files, read as the imports of the library do: the lines are those
// that the rules of the format give, and the rows that come of them are written and read back. The
// first byte of an input says how far its first line begins before the limit of lines, by blanks
// (none for 0); the rest is the file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "address/EmailAddress.h"
#include "alias/AddressAliasDbMySQL.h"
#include "fuzz/Fuzz.h"
#include "map/ColonLines.h"

using Tessel::AddressAliasDbMySQL;
using Tessel::EmailAddress;
using Tessel::forEachColonLine;
using Tessel::Fuzz::asText;
using Tessel::Fuzz::outcomeOf;
using Tessel::Fuzz::require;

namespace {

constexpr std::size_t s_longestLine = 16383;

using Members = std::set<EmailAddress>;

struct Line {
  std::string before;
  std::string after;
  bool operator==(const Line&) const = default;
};

std::vector<Line> s_lines(const std::string& file) {
  std::istringstream stream(file);
  std::vector<Line> lines;
  forEachColonLine(stream, [&lines](std::string_view before, std::string_view after) {
    lines.push_back({std::string(before), std::string(after)});
  });
  return lines;
}

// The lines by the words of the format: the line feed becomes a NUL, a line that is too long is cut
// and the last one, and one without a colon counts for nothing.
std::vector<Line> s_expectedLines(std::string_view file) {
  std::vector<Line> lines;
  while (!file.empty()) {
    const std::size_t end = std::min(file.find('\n'), file.size());
    const bool isWhole = end <= s_longestLine;
    const bool hasFeed = isWhole && end < file.size();
    std::string line(file.substr(0, std::min(end, s_longestLine)));
    if (hasFeed) line += '\0';
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
      lines.push_back({line.substr(0, colon), line.substr(colon + 1)});
    }
    if (!hasFeed) break;
    file.remove_prefix(end + 1);
  }
  return lines;
}

std::string_view s_withoutFeed(std::string_view after) {
  if (after.ends_with('\0')) after.remove_suffix(1);
  return after;
}

// One kind of table file. `read` makes a row of the two texts of a line or throws, `write` makes
// its line, without the line feed.
template <class Read, class Write>
void s_checkTable(const std::vector<Line>& lines, const Read& read, const Write& write) {
  std::string file;
  std::vector<std::string> rows;
  for (const Line& line : lines) {
    const auto row = outcomeOf([&] { return read(line.before, line.after); });
    require(outcomeOf([&] { return read(line.before, s_withoutFeed(line.after)); }) == row,
            "the NUL in place of the line feed does not matter", line.after);
    // The import ends there.
    if (!row.value) break;
    rows.push_back(write(*row.value));
    // Quoting may have made a line longer than a line can be.
    if (rows.back().size() > s_longestLine) return;
    file += rows.back() + '\n';
  }
  const std::vector<Line> again = s_lines(file);
  require(again.size() == rows.size(), "each row that is written is one line", file);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    require(write(read(again[i].before, again[i].after)) == rows[i], "a row is read back", rows[i]);
  }
}

using AliasRow = std::pair<EmailAddress, Members>;
using MaskRow = std::pair<EmailAddress, EmailAddress>;

AliasRow s_readAlias(std::string_view before, std::string_view after) {
  const EmailAddress alias = EmailAddress::rfc5322Parse(before, true);
  return {alias, EmailAddress::rfc5322ParseSet(after, true, false)};
}

std::string s_writeAlias(const AliasRow& row) {
  std::ostringstream line;
  line << row.first << ":";
  AddressAliasDbMySQL::writeMemberSet(row.second, line);
  return line.str();
}

MaskRow s_readMask(std::string_view before, std::string_view after) {
  const EmailAddress privateAddress = EmailAddress::rfc5321Parse(before, false);
  return {privateAddress, EmailAddress::rfc5321Parse(after, false)};
}

std::string s_writeMask(const MaskRow& row) {
  std::ostringstream line;
  line << row.first << ":" << row.second;
  return line.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t blanks = data[0] == 0 ? 0 : s_longestLine - data[0];
  const std::string file = std::string(blanks, ' ') + std::string(asText(data, size).substr(1));
  const std::vector<Line> lines = s_lines(file);
  require(lines == s_expectedLines(file), "the lines are those of the format", file);
  s_checkTable(lines, s_readAlias, s_writeAlias);
  s_checkTable(lines, s_readMask, s_writeMask);
  return 0;
}
