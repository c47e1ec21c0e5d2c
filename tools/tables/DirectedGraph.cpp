// A directed graph of numbered nodes.
#include "tables/DirectedGraph.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Tessel::Tool {

namespace {

constexpr std::uint32_t s_unseen = UINT32_MAX;

// Tarjan's algorithm with a stack of its own: a chain may be as long as the table.
class Tarjan {
 public:
  explicit Tarjan(const DirectedGraph& graph)
      : m_graph(graph), m_low(graph.size(), s_unseen), m_component(graph.size(), s_unseen) {}

  std::vector<std::uint32_t> run() {
    for (DirectedGraph::Node node = 0; node < m_graph.size(); ++node) {
      if (m_low[node] == s_unseen) walk(node);
    }
    return std::move(m_component);
  }

  [[nodiscard]] std::uint32_t count() const { return m_count; }

 private:
  struct Level {
    DirectedGraph::Node node;
    std::uint32_t order;  // When it was met.
    std::size_t next;     // The link to follow next.
  };

  void enter(DirectedGraph::Node node) {
    m_levels.push_back({node, m_order, 0});
    m_low[node] = m_order++;
    m_open.push_back(node);
  }

  void walk(DirectedGraph::Node first) {
    enter(first);
    while (!m_levels.empty()) {
      Level& level = m_levels.back();
      const auto targets = m_graph.of(level.node);
      if (level.next == targets.size()) {
        leave();
        continue;
      }
      const DirectedGraph::Node target = targets[level.next++];
      if (m_low[target] == s_unseen) {
        enter(target);
      } else if (m_component[target] == s_unseen) {
        m_low[level.node] = std::min(m_low[level.node], m_low[target]);
      }
    }
  }

  void leave() {
    const Level level = m_levels.back();
    m_levels.pop_back();
    if (m_low[level.node] == level.order) {
      DirectedGraph::Node node = s_unseen;
      while (node != level.node) {
        node = m_open.back();
        m_open.pop_back();
        m_component[node] = m_count;
      }
      ++m_count;
    }
    if (m_levels.empty()) return;
    const DirectedGraph::Node above = m_levels.back().node;
    m_low[above] = std::min(m_low[above], m_low[level.node]);
  }

  const DirectedGraph& m_graph;
  std::vector<std::uint32_t> m_low;
  std::vector<std::uint32_t> m_component;
  std::vector<Level> m_levels;
  std::vector<DirectedGraph::Node> m_open;  // Met, and in no component yet.
  std::uint32_t m_order = 0;
  std::uint32_t m_count = 0;
};

// A shortest path from `start` to `end` through nodes of their component, both included; if they
// are the same node, a path that leaves it.
std::vector<DirectedGraph::Node> s_shortestWay(const DirectedGraph& graph,
                                               const Components& components,
                                               DirectedGraph::Node start, DirectedGraph::Node end) {
  // Breadth first, each node with the one it was met from.
  std::unordered_map<DirectedGraph::Node, DirectedGraph::Node> from;
  std::vector<DirectedGraph::Node> queue{start};
  for (std::size_t i = 0; i < queue.size() && !from.contains(end); ++i) {
    for (const DirectedGraph::Node target : graph.of(queue[i])) {
      if (components.of[target] != components.of[start] || target == queue[i]) continue;
      if (from.emplace(target, queue[i]).second) queue.push_back(target);
    }
  }
  std::vector<DirectedGraph::Node> way{end};
  do {
    way.push_back(from.at(way.back()));
  } while (way.back() != start);
  std::reverse(way.begin(), way.end());
  return way;
}

}  // namespace

DirectedGraph::DirectedGraph(std::size_t nodes, const std::vector<Link>& links)
    : m_starts(nodes + 1), m_targets(links.size()) {
  for (const Link& link : links) ++m_starts[link.from + 1];
  for (std::size_t node = 0; node < nodes; ++node) m_starts[node + 1] += m_starts[node];
  std::vector<std::size_t> next(m_starts.begin(), m_starts.end() - 1);
  for (const Link& link : links) m_targets[next[link.from]++] = link.to;
}

DirectedGraph DirectedGraph::reversed() const {
  std::vector<Link> links;
  links.reserve(m_targets.size());
  for (Node node = 0; node < size(); ++node) {
    for (const Node target : of(node)) links.push_back({target, node});
  }
  return DirectedGraph(size(), links);
}

Components componentsOf(const DirectedGraph& graph) {
  Tarjan tarjan(graph);
  Components components;
  components.of = tarjan.run();
  std::vector<Link> nodes;
  nodes.reserve(graph.size());
  for (DirectedGraph::Node node = 0; node < graph.size(); ++node) {
    nodes.push_back({components.of[node], node});
  }
  components.nodes = DirectedGraph(tarjan.count(), nodes);
  return components;
}

std::vector<DirectedGraph::Node> cycleThrough(const DirectedGraph& graph,
                                              const Components& components,
                                              DirectedGraph::Node node) {
  return s_shortestWay(graph, components, node, node);
}

std::vector<Cycle> cyclesOf(const DirectedGraph& graph,
                            const std::vector<DirectedGraph::Node>& nodes,
                            const std::vector<Link>& added) {
  const Components components = componentsOf(graph);
  std::unordered_map<std::uint32_t, Link> closing;  // By the component.
  for (const Link& link : added) {
    const std::uint32_t component = components.of[link.from];
    if (component == components.of[link.to]) closing.emplace(component, link);
  }
  std::vector<Cycle> cycles;
  std::unordered_set<std::uint32_t> done;
  for (const DirectedGraph::Node node : nodes) {
    const std::uint32_t component = components.of[node];
    if (components.nodes.of(component).size() < 2 || !done.insert(component).second) continue;
    const auto link = closing.find(component);
    if (link == closing.end()) {
      cycles.push_back({cycleThrough(graph, components, node), false});
      continue;
    }
    const auto [from, to] = link->second;
    Cycle cycle{s_shortestWay(graph, components, to, from), true};
    cycle.path.insert(cycle.path.begin(), from);
    cycles.push_back(std::move(cycle));
  }
  return cycles;
}

}  // namespace Tessel::Tool
