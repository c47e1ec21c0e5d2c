// The aliases that mail servers have asked for.
#include "tables/UsedAliases.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tables/AliasRule.h"

namespace Tessel::Tool {

namespace {

constexpr std::string_view s_begin = "tsl-address-map used aliases 1 since ";
constexpr std::string_view s_until = " until ";
constexpr std::string_view s_count = " count ";
constexpr std::size_t s_timeSize = std::string_view("2026-12-31 23:59:59").size();

// Takes `word` and the time behind it off `text`.
UsedAliases::Time s_takeTime(std::string_view& text, std::string_view word) {
  const bool isWord = text.starts_with(word);
  if (isWord) text.remove_prefix(word.size());
  const auto time = parseTime(std::string(text.substr(0, s_timeSize)));
  if (!isWord || !time) throw std::runtime_error("it is no file of used aliases");
  text.remove_prefix(s_timeSize);
  return *time;
}

}  // namespace

UsedAliases::UsedAliases(std::string_view content) {
  const auto takeLine = [&content] {
    const std::string_view line = content.substr(0, content.find('\n'));
    content.remove_prefix(std::min(line.size() + 1, content.size()));
    return line;
  };
  const bool isEnded = content.ends_with('\n');
  const std::string_view first = takeLine();
  std::string_view times = first;
  m_since = s_takeTime(times, s_begin);
  m_until = s_takeTime(times, s_until);
  bool isWhole = isEnded;
  while (isWhole && !content.empty()) {
    const std::string_view line = takeLine();
    isWhole = line.find(' ') != std::string_view::npos && add(line);
  }
  // Also compares the number of aliases.
  if (!isWhole || header() != first) throw std::runtime_error("it is damaged");
}

bool UsedAliases::has(const std::string& table, std::string_view key) const {
  const auto keys = m_keys.find(table);
  return keys != m_keys.end() && keys->second.find(key) != AddressIndex::s_none;
}

bool UsedAliases::add(std::string_view line) {
  const std::size_t blank = line.find(' ');
  const std::string_view table = line.substr(0, blank);
  auto keys = m_keys.find(table);
  if (keys == m_keys.end()) keys = m_keys.emplace(table, AddressIndex()).first;
  return keys->second.add(line.substr(blank + 1)).isNew;
}

void UsedAliases::keep(const IsThere& isThere) {
  for (auto& [table, keys] : m_keys) {
    AddressIndex kept;
    for (AddressIndex::Id id = 0; id < keys.size(); ++id) {
      if (isThere(table, keys.text(id))) kept.add(keys.text(id));
    }
    if (kept.size() != keys.size()) keys = std::move(kept);
  }
}

void UsedAliases::write(Time until, const std::function<void(std::string_view)>& take) {
  m_until = until;
  take(header() + "\n");
  for (const auto& [table, keys] : m_keys) {
    std::vector<std::string_view> sorted;
    sorted.reserve(keys.size());
    for (AddressIndex::Id id = 0; id < keys.size(); ++id) sorted.push_back(keys.text(id));
    std::sort(sorted.begin(), sorted.end());
    for (const std::string_view key : sorted) take((table + " ").append(key).append("\n"));
  }
}

std::string UsedAliases::header() const {
  std::size_t count = 0;
  for (const auto& [table, keys] : m_keys) count += keys.size();
  return std::string(s_begin)
      .append(timeText(m_since))
      .append(s_until)
      .append(timeText(m_until))
      .append(s_count)
      .append(std::to_string(count));
}

}  // namespace Tessel::Tool
