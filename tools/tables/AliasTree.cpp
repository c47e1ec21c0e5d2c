// The expansion of an alias with everything that it meets.
#include "tables/AliasTree.h"

#include <utility>

#include "base/stringCompareNoCase.h"
#include "tables/AliasGraph.h"
#include "tables/Extension.h"

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
    for (auto& [address, row] : table.lookSpelled(std::exchange(unasked, {}))) {
      auto& own = *m_known.try_emplace(row.alias == address ? address : row.alias).first;
      if (!(own.first == address)) m_known[address].spelled = &own;
      if (own.second.hasRow) continue;
      own.second.row = std::move(row);
      own.second.hasRow = true;
      for (const EmailAddress& member : own.second.row.members) {
        if (m_known.try_emplace(member).second) unasked.insert(member);
      }
    }
  }
  readBases(table);
}

void AliasTree::readBases(AliasTable& table) {
  std::set<EmailAddress> bases;
  const auto forEach = [this](auto visit) {
    for (auto& [address, known] : m_known) {
      if (known.hasRow || known.spelled != nullptr) continue;
      const std::string text = withoutExtension(address.address());
      if (!text.empty()) visit(known, EmailAddress::rfc5321Parse(text, false));
    }
  };
  forEach([&bases](Known&, const EmailAddress& base) { bases.insert(base); });
  if (bases.empty()) return;
  const auto rows = table.lookSpelled(bases);
  forEach([&rows](Known& known, const EmailAddress& base) {
    if (rows.count(base) != 0) known.base = base;
  });
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
    auto& own = ownOf(known);
    const NodeKind kind = visit(own.second, known.first, m_nodes.empty());
    add(known, kind, static_cast<std::uint32_t>(levels.size()), parent);
    if (kind != NodeKind::Alias) return;
    own.second.isOpen = true;
    levels.push_back({&own, own.second.row.members.begin(), place});
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
    auto& member = *m_known.find(*level.next++);
    if (&ownOf(member) == level.known) {
      m_finals.insert(member.first);
      add(member, NodeKind::SelfDelivery, static_cast<std::uint32_t>(levels.size()), level.place);
    } else {
      enter(member, level.place);
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
  const Known& own = known.second.spelled != nullptr ? known.second.spelled->second : known.second;
  const EmailAddress* const base = own.base.isNull() ? nullptr : &own.base;
  m_nodes.push_back({&known.first, own.hasRow ? &own.row : nullptr, kind, depth, parent, base});
}

bool AliasTree::isAllUsers() const {
  if (m_finals.size() != 1) return false;
  const Node& root = m_nodes.front();
  const std::string marker =
      "allusers_" + (root.isSpelled() ? root.row->alias : *root.address).domain();
  return stringCompareNoCase(m_finals.begin()->address(), marker, 0);
}

void AliasTree::setMarker(NodeKind kind) {
  for (Node& node : m_nodes) {
    if (node.kind == NodeKind::Marker) node.kind = kind;
  }
}

}  // namespace Tessel::Tool
