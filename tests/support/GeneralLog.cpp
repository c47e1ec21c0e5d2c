// GeneralLog: takes the log's lines apart.
#include "support/GeneralLog.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>

namespace Tessel::Testing {

namespace {

constexpr char s_sessionSetUp[] = "set names utf8mb4, autocommit=1, sql_mode=";
constexpr char s_afterError[] = "do 0";

// An entry starts with a time, or a tab instead of it, a tab, the connection number, the command
// and a tab. Anything else continues the statement before it.
std::optional<GeneralLog::Entry> s_entryStart(const std::string& line) {
  const std::size_t tab = line.find('\t');
  if (tab == std::string::npos || (tab != 0 && tab != 15)) return std::nullopt;
  std::size_t at = tab + 1;
  if (tab == 0 && (at >= line.size() || line[at++] != '\t')) return std::nullopt;
  const std::size_t number = line.find_first_not_of(' ', at);
  if (number == std::string::npos || std::isdigit(static_cast<unsigned char>(line[number])) == 0) {
    return std::nullopt;
  }
  const std::size_t blank = line.find(' ', number);
  const std::size_t end = line.find('\t', number);
  if (blank == std::string::npos || end == std::string::npos || end < blank) return std::nullopt;
  return GeneralLog::Entry{std::strtoul(line.c_str() + number, nullptr, 10),
                           line.substr(blank + 1, end - blank - 1), line.substr(end + 1)};
}

}  // namespace

GeneralLog::GeneralLog(TestServer& server) : m_server(server) {
  mark();
}

void GeneralLog::mark() {
  m_start = std::filesystem::file_size(m_server.generalLog());
}

bool GeneralLog::isOfTheSession(const std::string& statement) {
  return statement.starts_with(s_sessionSetUp) || statement == s_afterError;
}

std::vector<GeneralLog::Entry> GeneralLog::parse(const std::string& text) {
  std::vector<Entry> entries;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string line = text.substr(at, end - at);
    at = end + 1;
    if (const auto entry = s_entryStart(line)) {
      entries.push_back(*entry);
    } else if (!entries.empty()) {
      entries.back().text += "\n" + line;
    }
  }
  return entries;
}

std::vector<GeneralLog::Entry> GeneralLog::entriesSince() const {
  std::ifstream stream(m_server.generalLog(), std::ios::binary);
  stream.seekg(static_cast<std::streamoff>(m_start));
  return parse({std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()});
}

std::vector<std::string> GeneralLog::statementsSince() const {
  const std::vector<Entry> entries = entriesSince();
  const unsigned long own = m_server.sqlConnectionId();
  std::vector<std::string> statements;
  for (const Entry& entry : entries) {
    if (entry.command != "Query" || entry.connection == own) continue;
    if (isOfTheSession(entry.text)) continue;
    statements.push_back(entry.text);
  }
  return statements;
}

}  // namespace Tessel::Testing
