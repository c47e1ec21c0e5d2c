// A directed graph of numbered nodes in little memory, and its loops.
#ifndef TSL_TOOLS_TABLES_DIRECTEDGRAPH_H
#define TSL_TOOLS_TABLES_DIRECTEDGRAPH_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Tessel::Tool {

// One link.
struct Link {
  std::uint32_t from;
  std::uint32_t to;
};

// Which nodes each node links to. An immutable value.
class DirectedGraph {
 public:
  using Node = std::uint32_t;

  DirectedGraph() : m_starts(1) {}
  // The graph of `nodes` nodes with `links`, which are kept in their order for each node.
  DirectedGraph(std::size_t nodes, const std::vector<Link>& links);

  // The same graph with each link reversed.
  [[nodiscard]] DirectedGraph reversed() const;
  // Where the links of `node` lead. Valid as long as this object.
  [[nodiscard]] std::span<const Node> of(Node node) const {
    return {m_targets.data() + m_starts[node], m_starts[node + 1] - m_starts[node]};
  }
  [[nodiscard]] std::size_t size() const noexcept { return m_starts.size() - 1; }

 private:
  std::vector<std::size_t> m_starts;  // Of the links of each node in `m_targets`, and the end.
  std::vector<Node> m_targets;
};

// The strongly connected components of a graph: the largest sets of nodes that all reach each
// other. Components are numbered so that links between two lead from the higher number to the lower
// one.
struct Components {
  std::vector<std::uint32_t> of;  // Component of each node.
  DirectedGraph nodes;            // The nodes of each component, as links from its number.
};

// The components of `graph`, found without recursion, in time proportional to its size.
Components componentsOf(const DirectedGraph& graph);

// A shortest path from `node` back to itself through nodes of its component, `node` at both ends.
// Requires: its component has more than one node.
std::vector<DirectedGraph::Node> cycleThrough(const DirectedGraph& graph,
                                              const Components& components,
                                              DirectedGraph::Node node);

// A loop, the same node at both ends.
struct Cycle {
  std::vector<DirectedGraph::Node> path;
  bool isNew;  // It would not be there without one of the links that were asked about.
};

// The loops that a change of links leaves behind: one of each component that has more than one node
// and one of `nodes` among them. Where one of `added`, links of the graph, closes it, a shortest
// one that begins with the first such link; otherwise a shortest one through the first such node.
std::vector<Cycle> cyclesOf(const DirectedGraph& graph,
                            const std::vector<DirectedGraph::Node>& nodes,
                            const std::vector<Link>& added);

}  // namespace Tessel::Tool

#endif
