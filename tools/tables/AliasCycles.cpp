// Cycles that a change of alias tables would leave behind.
#include "tables/AliasCycles.h"

#include <cstddef>
#include <utility>

#include "tables/Links.h"

namespace Tessel::Tool {

namespace {

// Longer ways lose their middle when they are shown.
constexpr std::size_t s_longestPath = 20;

// The aliases that changes lead to, numbered, the changed ones first.
class Reached {
 public:
  Reached(AliasTable& table, const AliasChanges& changes) : m_changed(changes.size()) {
    for (const auto& [alias, members] : changes) number(alias);
    for (const auto& [alias, members] : changes) addMembers(number(alias), members);
    while (!m_unasked.empty()) ask(table);
  }

  [[nodiscard]] std::vector<std::vector<EmailAddress>> cycles() const {
    const Links links(m_addresses.size(), m_links);
    const Components components = componentsOf(links);
    std::vector<std::vector<EmailAddress>> cycles;
    std::set<std::uint32_t> told;
    for (Links::Node alias = 0; alias < m_changed; ++alias) {
      const std::uint32_t component = components.of[alias];
      if (components.nodes.of(component).size() < 2 || !told.insert(component).second) continue;
      std::vector<EmailAddress> cycle;
      for (const Links::Node node : cycleThrough(links, components, alias)) {
        cycle.push_back(m_addresses[node]);
      }
      cycles.push_back(std::move(cycle));
    }
    return cycles;
  }

 private:
  Links::Node number(const EmailAddress& address) {
    const auto next = static_cast<Links::Node>(m_addresses.size());
    const auto [known, isNew] = m_numbers.emplace(address, next);
    if (isNew) m_addresses.push_back(address);
    return known->second;
  }

  void addMembers(Links::Node alias, const std::set<EmailAddress>& members) {
    for (const EmailAddress& member : members) {
      const std::size_t known = m_addresses.size();
      const Links::Node node = number(member);
      if (node == known) m_unasked.insert(member);
      if (node != alias) m_links.push_back({alias, node});
    }
  }

  void ask(AliasTable& table) {
    for (const auto& [alias, row] : table.look(std::exchange(m_unasked, {}))) {
      addMembers(number(alias), row.members);
    }
  }

  std::size_t m_changed;
  std::map<EmailAddress, Links::Node> m_numbers;
  std::vector<EmailAddress> m_addresses;
  std::vector<Link> m_links;
  std::set<EmailAddress> m_unasked;
};

}  // namespace

std::vector<std::vector<EmailAddress>> cyclesOf(AliasTable& table, const AliasChanges& changes) {
  return Reached(table, changes).cycles();
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
