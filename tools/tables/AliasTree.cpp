// The expansion of an alias with everything that it meets.
#include "tables/AliasTree.h"

#include <utility>

#include "base/stringCompareNoCase.h"
#include "tables/AliasGraph.h"

namespace Tessel::Tool {

const char* textOf(NodeKind kind) {
  switch (kind) {
    case NodeKind::Final:
      return "final";
    case NodeKind::Alias:
      return "alias";
    case NodeKind::Repeated:
      return "repeated";
    case NodeKind::Cycle:
      return "cycle";
    case NodeKind::SelfDelivery:
      return "self-delivery";
    case NodeKind::AllUsers:
      return "all-users";
    case NodeKind::MissingDomain:
      return "missing-domain";
    case NodeKind::Marker:
      return "marker";
    case NodeKind::Broken:
      return "broken";
  }
  return "";
}

AliasTree::AliasTree(AliasTable& table, const EmailAddress& root) {
  read(table, root);
  walk(root);
}

void AliasTree::read(AliasTable& table, const EmailAddress& root) {
  std::set<EmailAddress> unasked{root};
  m_known[root];
  while (!unasked.empty()) {
    for (auto& [alias, row] : table.look(std::exchange(unasked, {}))) {
      Known& known = m_known[alias];
      known.row = std::move(row);
      known.hasRow = true;
      for (const EmailAddress& member : known.row.members) {
        if (m_known.try_emplace(member).second) unasked.insert(member);
      }
    }
  }
}

// Follows the steps of the library's expansion, with an explicit stack like that.
void AliasTree::walk(const EmailAddress& root) {
  struct Level {
    KnownAddresses::value_type* known;
    std::set<EmailAddress>::const_iterator next;
    std::uint32_t place;
  };
  std::vector<Level> levels;
  const auto enter = [&](KnownAddresses::value_type& known, std::uint32_t parent) {
    const auto place = static_cast<std::uint32_t>(m_nodes.size());
    const NodeKind kind = visit(known.second, known.first, m_nodes.empty());
    add(known, kind, static_cast<std::uint32_t>(levels.size()), parent);
    if (kind != NodeKind::Alias) return;
    known.second.isOpen = true;
    levels.push_back({&known, known.second.row.members.begin(), place});
  };
  enter(*m_known.find(root), 0);
  while (!levels.empty()) {
    Level& level = levels.back();
    Known& alias = level.known->second;
    if (level.next == alias.row.members.end()) {
      alias.isOpen = false;
      levels.pop_back();
      continue;
    }
    const EmailAddress& member = *level.next++;
    if (member == level.known->first) {
      m_finals.insert(member);
      add(*level.known, NodeKind::SelfDelivery, static_cast<std::uint32_t>(levels.size()),
          level.place);
    } else {
      enter(*m_known.find(member), level.place);
    }
  }
}

NodeKind AliasTree::visit(Known& known, const EmailAddress& address, bool isRoot) {
  const bool wasVisited = std::exchange(known.isVisited, true);
  if (known.hasRow && known.row.fault == RowFault::BadValue) return NodeKind::Broken;
  if (known.hasRow && !known.row.members.empty()) {
    if (!wasVisited) return NodeKind::Alias;
    return known.isOpen ? NodeKind::Cycle : NodeKind::Repeated;
  }
  if (!isRoot) m_finals.insert(address);
  return isMarker(address.address()) ? NodeKind::Marker : NodeKind::Final;
}

void AliasTree::add(const KnownAddresses::value_type& known, NodeKind kind, std::uint32_t depth,
                    std::uint32_t parent) {
  m_nodes.push_back(
      {&known.first, known.second.hasRow ? &known.second.row : nullptr, kind, depth, parent});
}

bool AliasTree::isAllUsers() const {
  if (m_finals.size() != 1) return false;
  const std::string marker = "allusers_" + m_nodes.front().address->domain();
  return stringCompareNoCase(m_finals.begin()->address(), marker, 0);
}

void AliasTree::setMarker(NodeKind kind) {
  for (Node& node : m_nodes) {
    if (node.kind == NodeKind::Marker) node.kind = kind;
  }
}

}  // namespace Tessel::Tool
