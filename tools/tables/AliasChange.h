// What a change of an alias table would leave behind: alias loops, and markers without effect.
#ifndef TSL_TOOLS_TABLES_ALIASCHANGE_H
#define TSL_TOOLS_TABLES_ALIASCHANGE_H

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tables/AliasGraph.h"
#include "tables/DirectedGraph.h"
#include "tables/RowReader.h"
#include "tables/SpellingIndex.h"
#include "tables/TableFormat.h"

namespace Tessel::Tool {

// An alias loop, the same alias at both ends; the first one is that of the written row `row`.
struct AliasLoop {
  std::size_t row;
  std::vector<std::string> path;
  bool isNew;  // A new member of the row closes it.
};

// What to do instead of leading to an all-users alias and to others.
constexpr const char* s_sideBySide =
    "make two lists side by side, each addressed by the sender or by a mask";

// An alias that reaches an all-users marker with other addresses, or from another domain: the
// library takes the marker for an address.
struct LostMarker {
  std::optional<std::size_t> row;  // The written row that this comes from; mostly that of `alias`.
  std::string alias;
  std::string holder;  // The alias that has the marker; may be `alias`.
  std::string marker;
  bool isOfRow;  // `alias` is that of `row`.
  bool isNew;    // It was not so before.

  // That in words, as those of the row `row`.
  [[nodiscard]] std::string why() const;
};

// The aliases of a table before and after a change, in memory. Costs the texts of the rows that the
// change leaves alone or removes, and little for those that it writes. One thread.
class AliasChange {
 public:
  // Adds a row that will be in the table; it must outlive the object. The rows have the numbers 0,
  // 1... All are added before anything else is called. Rows of spellings of one address are one
  // alias with the members of all.
  void write(const TableEntry& row);
  // The members that the row `row` has before; nothing when it is new.
  void setBefore(std::size_t row, std::string_view members);
  // The row `row` is as it was.
  void leave(std::size_t row) { m_before[row] = Before::Same; }
  // Adds a row that stays, or goes, and is of no address that is written. A broken one leads
  // nowhere. Of two rows of one address, the first wins, as everywhere.
  void keep(std::string_view name, std::string_view members) { add(name, members, true); }
  void remove(std::string_view name, std::string_view members) { add(name, members, false); }

  // Nothing may be added after a call of these.

  // Of each set of aliases that all lead to each other and of which one is that of a row that
  // changes, a shortest loop through the first such one. An alias that names itself is not one.
  [[nodiscard]] std::vector<AliasLoop> loops();
  // The aliases that lose a marker, without those that only lead to one of them; and the aliases of
  // rows that change which had lost it before.
  [[nodiscard]] std::vector<LostMarker> lostMarkers();
  // True when a written alias reaches another Reach than before, and so may those above it.
  [[nodiscard]] bool changesReach();

 private:
  using Node = DirectedGraph::Node;
  using Nodes = std::set<Node>;
  enum class Before : char { Nothing, Same, Members };

  // A row that is not written.
  struct Rest {
    std::size_t end;  // Of its members in `m_members`.
    bool stays;
  };

  // The table at one time.
  struct State {
    std::vector<bool> areAliases;
    DirectedGraph links;
    Components components;
    std::vector<Reach> reach;                  // Of the components.
    std::map<Node, AddressIndex::Id> holders;  // Aliases with a marker.

    // What mail for `node` reaches. One that is not an alias is an address.
    [[nodiscard]] Reach of(Node node) const {
      return areAliases[node] ? reach[components.of[node]] : Reach::addresses();
    }
  };
  class StateBuilder;

  void add(std::string_view name, std::string_view members, bool stays);
  State stateOf(bool isAfter);
  const State& before();
  const State& after();
  [[nodiscard]] std::vector<std::size_t> changedRows() const;
  [[nodiscard]] std::vector<Link> addedLinks(const std::vector<std::size_t>& rows);
  Nodes aliasesIn(std::string_view members);
  [[nodiscard]] bool isLost(const State& state, Node alias) const;
  [[nodiscard]] bool isLostByMember(Node alias);
  LostMarker lostMarker(Node alias, bool isNew);
  template <class Matches>
  std::optional<Node> nearest(Node start, Matches matches);

  RowReader m_reader{TableKind::Alias};
  std::vector<const TableEntry*> m_written;
  std::vector<Node> m_nodes;                     // Of the written rows.
  std::vector<std::size_t> m_rows;               // The first written row of each node that has one.
  std::vector<Before> m_before;                  // Of the written rows.
  std::map<std::size_t, std::string> m_members;  // Of written rows, before, where they differ.
  std::vector<Rest> m_rests;
  std::string m_texts;    // Of the members of `m_rests`.
  SpellingIndex m_names;  // All nodes: the aliases of `m_written`, then those of `m_rests`.
  AddressIndex m_markers;
  std::optional<State> m_stateBefore;
  std::optional<State> m_stateAfter;
};

// The addresses of a loop as "a -> b -> a", the middle of a long one left out.
std::string textOf(const std::vector<std::string>& path);

}  // namespace Tessel::Tool

#endif
