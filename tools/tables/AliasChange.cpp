// What a change of an alias table would leave behind.
#include "tables/AliasChange.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "base/stringCompareNoCase.h"

namespace Tessel::Tool {

namespace {

// Longer paths are shown without their middle.
constexpr std::size_t s_longestPath = 20;

}  // namespace

std::string LostMarker::why() const {
  const std::string who = "alias " + alias;
  const std::string whose = alias == holder
                                ? (isOfRow ? "its" : who + ": its")
                                : (isOfRow ? "it" : who) + " leads to " + holder + ", whose";
  return whose + " member '" + marker +
         "' means all users only when it is reached alone, from its own domain;"
         " otherwise it is taken for an address, and mail waits";
}

// Takes the members of all aliases at one time.
class AliasChange::StateBuilder {
 public:
  StateBuilder(AliasChange& change, std::vector<bool> areAliases)
      : m_change(change), m_own(areAliases.size()) {
    m_state.areAliases = std::move(areAliases);
  }

  void addMembers(Node alias, const std::vector<EmailAddress>& members) {
    for (const EmailAddress& member : members) addMember(alias, member.address());
  }

  void addMembers(Node alias, std::string_view members) {
    RowReader& reader = m_change.m_reader;
    if (reader.readValue(members) != RowFault::None) {
      m_own[alias].add(Reach::addresses());
      return;
    }
    for (const std::string_view member : reader.values()) addMember(alias, member);
  }

  State end() {
    m_state.links = DirectedGraph(m_own.size(), m_links);
    m_state.components = componentsOf(m_state.links);
    m_state.reach = reachOf(m_state.links, m_state.components, m_own);
    return std::move(m_state);
  }

 private:
  void addMember(Node alias, std::string_view member) {
    const Node node = m_change.m_names.find(member);
    if (node != SpellingIndex::s_none && node != alias && m_state.areAliases[node]) {
      m_links.push_back({alias, node});
    } else if (isMarker(member)) {
      const AddressIndex::Id marker = m_change.m_markers.add(member).id;
      m_own[alias].add(Reach::marker(marker));
      m_state.holders.emplace(alias, marker);
    } else {
      m_own[alias].add(Reach::addresses());
    }
  }

  AliasChange& m_change;
  State m_state;
  std::vector<Link> m_links;
  std::vector<Reach> m_own;
};

void AliasChange::write(const TableEntry& row) {
  const AddressIndex::Added name = m_names.add(row.key.address());
  if (name.isNew) m_rows.push_back(m_written.size());
  m_nodes.push_back(name.id);
  m_written.push_back(&row);
  m_before.push_back(Before::Nothing);
}

void AliasChange::setBefore(std::size_t row, std::string_view members) {
  m_before[row] = Before::Members;
  m_members[row] = members;
}

void AliasChange::add(std::string_view name, std::string_view members, bool stays) {
  // The library does not treat a row without members as an alias.
  const bool isAlias = !members.empty() && m_reader.readKey(name) == RowFault::None;
  if (!isAlias || !m_names.add(m_reader.key()).isNew) return;
  m_texts += members;
  m_rests.push_back({m_texts.size(), stays});
}

AliasChange::State AliasChange::stateOf(bool isAfter) {
  const std::size_t written = m_written.size();
  const auto rests = static_cast<Node>(m_rows.size());
  std::vector<bool> areAliases(m_names.size());
  for (std::size_t row = 0; row < written; ++row) {
    if (isAfter || m_before[row] != Before::Nothing) areAliases[m_nodes[row]] = true;
  }
  for (std::size_t i = 0; i < m_rests.size(); ++i) {
    areAliases[rests + i] = !isAfter || m_rests[i].stays;
  }
  StateBuilder builder(*this, areAliases);
  for (std::size_t row = 0; row < written; ++row) {
    if (isAfter || m_before[row] == Before::Same) {
      builder.addMembers(m_nodes[row], m_written[row]->values);
    } else if (m_before[row] == Before::Members) {
      builder.addMembers(m_nodes[row], m_members[row]);
    }
  }
  std::size_t start = 0;
  for (Node i = 0; i < m_rests.size(); ++i) {
    const auto text = std::string_view(m_texts).substr(start, m_rests[i].end - start);
    if (areAliases[rests + i]) builder.addMembers(rests + i, text);
    start = m_rests[i].end;
  }
  return builder.end();
}

const AliasChange::State& AliasChange::before() {
  if (!m_stateBefore) m_stateBefore = stateOf(false);
  return *m_stateBefore;
}

const AliasChange::State& AliasChange::after() {
  if (!m_stateAfter) m_stateAfter = stateOf(true);
  return *m_stateAfter;
}

std::vector<AliasLoop> AliasChange::loops() {
  const std::vector<std::size_t> rows = changedRows();
  std::vector<Node> nodes;
  nodes.reserve(rows.size());
  for (const std::size_t row : rows) nodes.push_back(m_nodes[row]);
  std::vector<AliasLoop> loops;
  for (Cycle& found : cyclesOf(after().links, nodes, addedLinks(rows))) {
    AliasLoop loop{m_rows[found.path.front()], {}, found.isNew};
    for (const Node node : found.path) loop.path.emplace_back(m_names.text(node));
    loops.push_back(std::move(loop));
  }
  return loops;
}

std::vector<std::size_t> AliasChange::changedRows() const {
  std::vector<std::size_t> rows;
  for (std::size_t row = 0; row < m_written.size(); ++row) {
    if (m_before[row] != Before::Same) rows.push_back(row);
  }
  return rows;
}

// Links of `rows` to members that are new in them.
std::vector<Link> AliasChange::addedLinks(const std::vector<std::size_t>& rows) {
  std::vector<Link> added;
  for (const std::size_t row : rows) {
    const Node alias = m_nodes[row];
    // Mostly no alias is a member of another one.
    if (after().links.of(alias).empty()) continue;
    const auto old = m_members.find(row);
    const Nodes members = old == m_members.end() ? Nodes() : aliasesIn(old->second);
    for (const Node member : after().links.of(alias)) {
      if (!members.contains(member)) added.push_back({alias, member});
    }
  }
  return added;
}

// The aliases among `members`; none when they cannot be read.
AliasChange::Nodes AliasChange::aliasesIn(std::string_view members) {
  Nodes aliases;
  if (m_reader.readValue(members) != RowFault::None) return aliases;
  for (const std::string_view member : m_reader.values()) {
    const Node node = m_names.find(member);
    if (node != SpellingIndex::s_none) aliases.insert(node);
  }
  return aliases;
}

std::vector<LostMarker> AliasChange::lostMarkers() {
  std::vector<LostMarker> lost;
  if (after().holders.empty()) return lost;
  for (Node alias = 0; alias < m_names.size(); ++alias) {
    if (!isLost(after(), alias)) continue;
    const bool isNew = !isLost(before(), alias);
    const bool isChanged = alias < m_rows.size() && m_before[m_rows[alias]] != Before::Same;
    if (isNew ? !isLostByMember(alias) : isChanged) lost.push_back(lostMarker(alias, isNew));
  }
  return lost;
}

bool AliasChange::isLost(const State& state, Node alias) const {
  if (!state.areAliases[alias]) return false;
  const Reach reach = state.of(alias);
  if (!reach.isMarker()) return reach.isMixed();
  const std::string_view domain = domainOf(m_names.text(alias));
  return !stringCompareNoCase(markerDomain(m_markers.text(reach.number())), domain, 0);
}

// True when what is wrong comes from one of the members, which is reported then.
bool AliasChange::isLostByMember(Node alias) {
  const State& now = after();
  const auto members = now.links.of(alias);
  return std::any_of(members.begin(), members.end(), [&](Node member) {
    return now.components.of[member] != now.components.of[alias] && isLost(now, member) &&
           !isLost(before(), member);
  });
}

LostMarker AliasChange::lostMarker(Node alias, bool isNew) {
  const auto& holders = after().holders;
  const Node holder = *nearest(alias, [&](Node node) { return holders.contains(node); });
  const auto isCause = [&](Node node) {
    return node < m_rows.size() && before().of(node) != after().of(node);
  };
  std::optional<Node> cause = nearest(alias, isCause);
  const bool isOfRow = alias < m_rows.size();
  if (isOfRow && (!cause || m_before[m_rows[alias]] != Before::Same)) cause = alias;
  return {cause ? std::optional(m_rows[*cause]) : std::nullopt,
          std::string(m_names.text(alias)),
          std::string(m_names.text(holder)),
          std::string(m_markers.text(holders.at(holder))),
          cause == alias,
          isNew};
}

// The nearest alias that `start` leads to, or is, and that `matches`.
template <class Matches>
std::optional<AliasChange::Node> AliasChange::nearest(Node start, Matches matches) {
  std::vector<Node> queue{start};
  std::unordered_set<Node> met{start};
  for (std::size_t i = 0; i < queue.size(); ++i) {
    if (matches(queue[i])) return queue[i];
    for (const Node member : after().links.of(queue[i])) {
      if (met.insert(member).second) queue.push_back(member);
    }
  }
  return std::nullopt;
}

bool AliasChange::changesReach() {
  const std::vector<std::size_t> rows = changedRows();
  return std::any_of(rows.begin(), rows.end(), [this](std::size_t row) {
    return before().of(m_nodes[row]) != after().of(m_nodes[row]);
  });
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

}  // namespace Tessel::Tool
