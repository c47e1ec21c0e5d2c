// Cycles of aliases that an import would leave behind.
#include "files/ImportCycles.h"

#include <set>
#include <utility>

namespace Tessel::Tool {

ImportCycles::ImportCycles(const TableFile& file) : m_file(file) {
  for (const FileEntry& entry : file.entries()) m_names.add(entry.key.address());
}

void ImportCycles::keep(std::string_view name, std::string_view members) {
  // Of two rows of one address the first one counts, as everywhere.
  if (m_reader.readKey(name) != RowFault::None || !m_names.add(m_reader.key()).isNew) return;
  m_members += members;
  m_ends.push_back(m_members.size());
}

std::vector<ImportCycles::Cycle> ImportCycles::find(const std::vector<const FileEntry*>& written) {
  const std::vector<FileEntry>& entries = m_file.entries();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    addLinks(static_cast<Links::Node>(i), entries[i].value);
  }
  std::size_t start = 0;
  for (std::size_t i = 0; i < m_ends.size(); ++i) {
    addLinks(static_cast<Links::Node>(entries.size() + i),
             std::string_view(m_members).substr(start, m_ends[i] - start));
    start = m_ends[i];
  }
  // Mostly no alias is a member of another one.
  if (m_links.empty()) return {};
  const Links links(m_names.size(), m_links);
  const Components components = componentsOf(links);
  std::vector<Cycle> cycles;
  std::set<std::uint32_t> told;
  for (const FileEntry* entry : written) {
    const auto alias = static_cast<Links::Node>(entry - entries.data());
    const std::uint32_t component = components.of[alias];
    if (components.nodes.of(component).size() < 2 || !told.insert(component).second) continue;
    Cycle cycle{entry->number, {}};
    for (const Links::Node node : cycleThrough(links, components, alias)) {
      cycle.path.emplace_back(m_names.text(node));
    }
    cycles.push_back(std::move(cycle));
  }
  return cycles;
}

void ImportCycles::addLinks(Links::Node alias, std::string_view members) {
  if (m_reader.readValue(members) != RowFault::None) return;
  for (const std::string_view member : m_reader.values()) addLink(alias, member);
}

void ImportCycles::addLink(Links::Node alias, std::string_view member) {
  const AddressIndex::Id id = m_names.find(member);
  if (id != AddressIndex::s_none && id != alias) m_links.push_back({alias, id});
}

}  // namespace Tessel::Tool
