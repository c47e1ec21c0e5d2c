// What a change of an alias table would leave behind.
#include "tables/AliasCycles.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/stringCompareNoCase.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"

namespace Tessel::Tool {

namespace {

// Longer paths are shown without their middle.
constexpr std::size_t s_longestPath = 20;

constexpr DirectedGraph::Node s_changed = 0;

}  // namespace

ReachedAliases::ReachedAliases(AliasTable& table, const EmailAddress& alias,
                               const AliasChange& change) {
  number(alias);
  addMembers(s_changed, change.members);
  while (!m_unasked.empty()) {
    for (const auto& [found, row] : table.lookSpelled(std::exchange(m_unasked, {}))) {
      addMembers(number(found), row.members);
    }
  }
  for (const EmailAddress& member : change.added) {
    const Node node = number(member);
    if (node != s_changed) m_added.push_back({s_changed, node});
  }
}

std::optional<AliasCycle> ReachedAliases::cycle() const {
  const DirectedGraph links(m_addresses.size(), m_links);
  const std::vector<Cycle> cycles = cyclesOf(links, {s_changed}, m_added);
  if (cycles.empty()) return std::nullopt;
  AliasCycle cycle{{}, cycles.front().isNew};
  for (const Node node : cycles.front().path) cycle.path.push_back(m_addresses[node]);
  return cycle;
}

std::optional<LostMarker> ReachedAliases::lostMarker() const {
  std::optional<Node> marker;
  std::size_t finals = m_namesItself ? 1 : 0;
  for (Node node = 0; node < m_addresses.size(); ++node) {
    if (m_areAliases[node]) continue;
    ++finals;
    if (isMarker(m_addresses[node].address())) marker = node;
  }
  if (!marker) return std::nullopt;
  const std::string text = m_addresses[*marker].address();
  const bool isOwn = stringCompareNoCase(markerDomain(text), m_addresses[s_changed].domain(), 0);
  if (finals == 1 && isOwn) return std::nullopt;
  const auto link = std::find_if(m_links.begin(), m_links.end(),
                                 [&](const Link& one) { return one.to == *marker; });
  return LostMarker{text, m_addresses[link->from]};
}

ReachedAliases::Node ReachedAliases::number(const EmailAddress& address) {
  const auto next = static_cast<Node>(m_addresses.size());
  const auto [known, isNew] = m_numbers.emplace(comparisonKey(address.address()), next);
  if (isNew) {
    m_addresses.push_back(address);
    m_areAliases.push_back(false);
  }
  return known->second;
}

void ReachedAliases::addMembers(Node alias, const std::set<EmailAddress>& members) {
  if (!members.empty()) m_areAliases[alias] = true;
  for (const EmailAddress& member : members) {
    const std::size_t known = m_addresses.size();
    const Node node = number(member);
    if (node == known) m_unasked.insert(member);
    if (node != alias) {
      m_links.push_back({alias, node});
    } else {
      m_namesItself = true;
    }
  }
}

std::string textOf(const std::vector<std::string>& path) {
  std::string text;
  const bool isLong = path.size() > s_longestPath;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (isLong && i == s_longestPath / 2) {
      const std::size_t left = path.size() - s_longestPath;
      text += " -> ... (" + std::to_string(left) + " more)";
      i += left;
    }
    if (i != 0) text += " -> ";
    text += path[i];
  }
  return text;
}

std::string textOf(const std::vector<EmailAddress>& path) {
  std::vector<std::string> texts;
  texts.reserve(path.size());
  for (const EmailAddress& address : path) texts.push_back(address.address());
  return textOf(texts);
}

}  // namespace Tessel::Tool
