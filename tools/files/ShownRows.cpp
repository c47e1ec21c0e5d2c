// The rows of a table that a person is shown to change them.
#include "files/ShownRows.h"

#include <algorithm>
#include <utility>

#include "failure/Failure.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Changed rows that are named one by one.
constexpr std::size_t s_mostNamed = 10;

std::string s_lineOf(std::string_view key, std::string_view value) {
  return std::string(key).append(":").append(value);
}

std::string s_quoted(std::string_view value) {
  // Members can be many.
  const std::string_view start = value.substr(0, 200);
  return "'" + std::string(start) + (start.size() < value.size() ? "...'" : "'");
}

}  // namespace

void ShownRows::add(std::string_view key, std::string_view value, const TableEntry& entry) {
  Row row{std::string(value), entry.line()};
  if (row.line == s_lineOf(key, value)) row.line.clear();
  m_rows.emplace(key, std::move(row));
}

bool ShownRows::isUnchanged(const std::string& key, const TableEntry& entry) const {
  const auto row = m_rows.find(key);
  if (row == m_rows.end()) return false;
  const auto& [value, line, isMet] = row->second;
  return entry.line() == (line.empty() ? s_lineOf(key, value) : line);
}

void ShownRows::begin() {
  for (auto& [key, row] : m_rows) row.isMet = false;
  m_changed.clear();
}

bool ShownRows::meet(std::string_view key, std::string_view value) {
  const auto row = m_rows.find(std::string(key));
  if (row == m_rows.end()) return false;
  row->second.isMet = true;
  if (row->second.value != value) {
    m_changed.push_back(row->first + ": it is " + s_quoted(value) + " now, and was " +
                        s_quoted(row->second.value));
  }
  return true;
}

void ShownRows::refuseChanged(const std::string& table) {
  for (const auto& [key, row] : m_rows) {
    if (!row.isMet) m_changed.push_back(key + ": it is gone");
  }
  if (m_changed.empty()) return;
  std::sort(m_changed.begin(), m_changed.end());
  const std::size_t named = std::min(m_changed.size(), s_mostNamed);
  for (std::size_t i = 0; i < named; ++i) say("table " + table + ": " + m_changed[i]);
  if (m_changed.size() > named) {
    say("and " + std::to_string(m_changed.size() - named) + " more rows");
  }
  throw Failure(
      ExitCode::Unavailable, "table " + table,
      "somebody has changed " + std::to_string(m_changed.size()) + " rows since they were shown",
      "nothing was written; 'tsl-address-map history ADDRESS' shows who it was; start"
      " again");
}

}  // namespace Tessel::Tool
