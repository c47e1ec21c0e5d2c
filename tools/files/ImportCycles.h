// Alias loops that an import would leave behind.
#ifndef TSL_TOOLS_FILES_IMPORTCYCLES_H
#define TSL_TOOLS_FILES_IMPORTCYCLES_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "files/TableFile.h"
#include "tables/DirectedGraph.h"
#include "tables/RowReader.h"
#include "tables/SpellingIndex.h"

namespace Tessel::Tool {

// The aliases of a table as an import leaves it, in memory: an import reads the whole table anyway,
// so nothing is asked for twice. Costs the texts of the rows that the file does not mention, and
// little for those that it does. One thread.
class ImportCycles {
 public:
  // A loop, the same alias at both ends, and the line of the file that writes this alias.
  struct Cycle {
    std::size_t line;
    std::vector<std::string> path;
    bool isNew;  // A new member of its row closes it.
  };

  // `file` must outlive the object.
  explicit ImportCycles(const TableFile& file);

  // Adds a row that stays and that the file does not mention. A broken one leads nowhere.
  void keep(std::string_view name, std::string_view members);
  // Sets the members that the row of `entry` has before the import.
  void replace(const FileEntry& entry, std::string_view members);
  // Of each set of aliases that all lead to each other and of which one is in `written`, entries of
  // the file, a shortest loop through the first such one. An alias that names itself is not one.
  std::vector<Cycle> find(const std::vector<const FileEntry*>& written);

 private:
  [[nodiscard]] DirectedGraph::Node nodeOf(const FileEntry& entry) const;
  using Aliases = std::set<DirectedGraph::Node>;

  [[nodiscard]] Aliases aliasesIn(const FileEntry& entry) const;
  [[nodiscard]] Aliases aliasesIn(std::string_view members);
  void addLinks(DirectedGraph::Node alias, const Aliases& members);
  [[nodiscard]] std::vector<Link> addedLinks(const std::vector<const FileEntry*>& written);

  const TableFile& m_file;
  RowReader m_reader{TableKind::Alias};
  SpellingIndex m_names;  // The aliases of the file first, in their order; all are nodes.
  std::vector<DirectedGraph::Node> m_nodes;  // Of the entries. Spellings of one alias share one.
  std::vector<std::size_t> m_ends;           // Of the members of kept rows in `m_members`.
  std::string m_members;
  std::map<DirectedGraph::Node, std::string> m_replaced;  // Members before, of entries that change.
  std::vector<Link> m_links;
};

}  // namespace Tessel::Tool

#endif
