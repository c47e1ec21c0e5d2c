// Alias loops that a change of alias tables would leave behind.
#include "tables/AliasCycles.h"

#include <cstddef>
#include <map>
#include <utility>

#include "tables/AddressKey.h"
#include "tables/DirectedGraph.h"

namespace Tessel::Tool {

namespace {

// Longer paths are shown without their middle.
constexpr std::size_t s_longestPath = 20;

// The aliases that a change leads to, numbered, the changed one first.
class Reached {
 public:
  Reached(AliasTable& table, const EmailAddress& alias, const AliasChange& change) {
    number(alias);
    addMembers(s_changed, change.members);
    while (!m_unasked.empty()) ask(table);
    for (const EmailAddress& member : change.added) {
      const DirectedGraph::Node node = number(member);
      if (node != s_changed) m_added.push_back({s_changed, node});
    }
  }

  [[nodiscard]] std::optional<AliasCycle> cycle() const {
    const DirectedGraph links(m_addresses.size(), m_links);
    const std::vector<Cycle> cycles = cyclesOf(links, {s_changed}, m_added);
    if (cycles.empty()) return std::nullopt;
    AliasCycle cycle{{}, cycles.front().isNew};
    for (const DirectedGraph::Node node : cycles.front().path)
      cycle.path.push_back(m_addresses[node]);
    return cycle;
  }

 private:
  static constexpr DirectedGraph::Node s_changed = 0;

  DirectedGraph::Node number(const EmailAddress& address) {
    const auto next = static_cast<DirectedGraph::Node>(m_addresses.size());
    const auto [known, isNew] = m_numbers.emplace(comparisonKey(address.address()), next);
    if (isNew) m_addresses.push_back(address);
    return known->second;
  }

  void addMembers(DirectedGraph::Node alias, const std::set<EmailAddress>& members) {
    for (const EmailAddress& member : members) {
      const std::size_t known = m_addresses.size();
      const DirectedGraph::Node node = number(member);
      if (node == known) m_unasked.insert(member);
      if (node != alias) m_links.push_back({alias, node});
    }
  }

  void ask(AliasTable& table) {
    for (const auto& [alias, row] : table.lookSpelled(std::exchange(m_unasked, {}))) {
      addMembers(number(alias), row.members);
    }
  }

  std::map<std::string, DirectedGraph::Node> m_numbers;  // By comparisonKey().
  std::vector<EmailAddress> m_addresses;
  std::vector<Link> m_links;
  std::vector<Link> m_added;
  std::set<EmailAddress> m_unasked;
};

}  // namespace

std::optional<AliasCycle> cycleOf(AliasTable& table, const EmailAddress& alias,
                                  const AliasChange& change) {
  return Reached(table, alias, change).cycle();
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
