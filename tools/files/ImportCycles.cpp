// Alias loops that an import would leave behind.
#include "files/ImportCycles.h"

#include <set>
#include <utility>

namespace Tessel::Tool {

ImportCycles::ImportCycles(const TableFile& file) : m_file(file) {
  m_nodes.reserve(file.entries().size());
  for (const FileEntry& entry : file.entries()) {
    m_nodes.push_back(m_names.add(entry.key.address()).id);
  }
}

void ImportCycles::keep(std::string_view name, std::string_view members) {
  // If two rows are of the same address, the first wins, as everywhere.
  if (m_reader.readKey(name) != RowFault::None || !m_names.add(m_reader.key()).isNew) return;
  m_members += members;
  m_ends.push_back(m_members.size());
}

std::vector<ImportCycles::Cycle> ImportCycles::find(const std::vector<const FileEntry*>& written) {
  for (const FileEntry& entry : m_file.entries()) addLinks(nodeOf(entry), aliasesIn(entry));
  std::size_t start = 0;
  // The kept rows come last.
  auto kept = static_cast<DirectedGraph::Node>(m_names.size() - m_ends.size());
  for (const std::size_t end : m_ends) {
    addLinks(kept++, aliasesIn(std::string_view(m_members).substr(start, end - start)));
    start = end;
  }
  // Mostly no alias is a member of another one.
  if (m_links.empty()) return {};
  std::vector<DirectedGraph::Node> nodes;
  nodes.reserve(written.size());
  std::map<DirectedGraph::Node, std::size_t> lines;
  for (const FileEntry* entry : written) {
    nodes.push_back(nodeOf(*entry));
    lines.emplace(nodes.back(), entry->number);
  }
  const DirectedGraph links(m_names.size(), m_links);
  std::vector<Cycle> cycles;
  for (const Tool::Cycle& found : cyclesOf(links, nodes, addedLinks(written))) {
    Cycle cycle{lines.at(found.path.front()), {}, found.isNew};
    for (const DirectedGraph::Node node : found.path) cycle.path.emplace_back(m_names.text(node));
    cycles.push_back(std::move(cycle));
  }
  return cycles;
}

void ImportCycles::replace(const FileEntry& entry, std::string_view members) {
  m_replaced[nodeOf(entry)] = members;
}

DirectedGraph::Node ImportCycles::nodeOf(const FileEntry& entry) const {
  return m_nodes[static_cast<std::size_t>(&entry - m_file.entries().data())];
}

// Links of entries to members that are new in their rows.
std::vector<Link> ImportCycles::addedLinks(const std::vector<const FileEntry*>& written) {
  std::vector<Link> added;
  for (const FileEntry* entry : written) {
    const DirectedGraph::Node alias = nodeOf(*entry);
    const auto replaced = m_replaced.find(alias);
    const Aliases before = replaced == m_replaced.end() ? Aliases() : aliasesIn(replaced->second);
    for (const DirectedGraph::Node member : aliasesIn(*entry)) {
      if (member != alias && !before.contains(member)) added.push_back({alias, member});
    }
  }
  return added;
}

ImportCycles::Aliases ImportCycles::aliasesIn(const FileEntry& entry) const {
  Aliases aliases;
  for (const EmailAddress& member : entry.values) {
    const AddressIndex::Id id = m_names.find(member.address());
    if (id != AddressIndex::s_none) aliases.insert(id);
  }
  return aliases;
}

// The aliases among `members`; none when they cannot be read.
ImportCycles::Aliases ImportCycles::aliasesIn(std::string_view members) {
  Aliases aliases;
  if (m_reader.readValue(members) != RowFault::None) return aliases;
  for (const std::string_view member : m_reader.values()) {
    const AddressIndex::Id id = m_names.find(member);
    if (id != AddressIndex::s_none) aliases.insert(id);
  }
  return aliases;
}

void ImportCycles::addLinks(DirectedGraph::Node alias, const Aliases& members) {
  for (const DirectedGraph::Node member : members) {
    if (member != alias) m_links.push_back({alias, member});
  }
}

}  // namespace Tessel::Tool
