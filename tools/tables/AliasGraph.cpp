// A whole alias table in memory.
#include "tables/AliasGraph.h"

#include "base/stringCompareNoCase.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "tables/Extension.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

constexpr std::string_view s_marker = "allusers_";

}  // namespace

void AliasVisitor::broken(std::string_view /*name*/, RowFault /*fault*/,
                          const std::string& /*why*/) {}

void AliasVisitor::doubled(std::string_view /*name*/, std::string_view /*first*/) {}

void AliasVisitor::row(std::string_view /*name*/, std::size_t /*size*/) {}

void AliasVisitor::member(AddressIndex::Id /*alias*/, std::string_view /*member*/,
                          bool /*isAlias*/) {}

// Goes through the rows twice: only the second time it is known which members are aliases. The
// others, usually most of them, are not kept.
class AliasGraph::Parser : public Database::AllRowParser {
 public:
  Parser(AliasGraph& graph, AliasVisitor& visitor, const CountRows& count)
      : m_graph(graph), m_visitor(visitor), m_count(count) {}

  void parse(void* connection, void* result) override {
    const std::int64_t count = db_result_row_num(result);
    m_graph.m_rows = static_cast<std::uint64_t>(count);
    m_count(0, m_graph.m_rows);
    m_ids.reserve(static_cast<std::size_t>(count));
    const auto text = [&](void* row, unsigned int column) {
      return std::string_view(db_result_get_value(connection, result, row, column),
                              db_result_field_length(result, column));
    };
    for (std::int64_t i = 0; i < count; ++i) {
      void* const row = db_result_fetch_row(result, i);
      m_ids.push_back(addName(text(row, 0), text(row, 1)));
      m_count(static_cast<std::uint64_t>(i) / 2, m_graph.m_rows);
    }
    m_graph.m_own.resize(m_graph.m_names.size());
    for (std::int64_t i = 0; i < count; ++i) {
      void* const row = db_result_fetch_row(result, i);
      const Id alias = m_ids[static_cast<std::size_t>(i)];
      if (alias != AddressIndex::s_none) addMembers(alias, text(row, 1));
      m_count(static_cast<std::uint64_t>(count + i + 1) / 2, m_graph.m_rows);
    }
    m_graph.m_links = DirectedGraph(m_graph.m_names.size(), m_links);
  }

 private:
  // The number of the row's alias, or `s_none` when the row is none or not the first of its alias.
  Id addName(std::string_view name, std::string_view members) {
    RowFault fault = m_reader.readKey(name);
    // Members are read when all names are known.
    if (fault == RowFault::None && members.empty()) fault = m_reader.readValue(members);
    if (fault != RowFault::None) {
      m_visitor.broken(name, fault, m_reader.why());
      return AddressIndex::s_none;
    }
    m_visitor.row(name, members.size());
    const AddressIndex::Added added = m_graph.m_names.add(m_reader.key());
    if (added.isNew) return added.id;
    m_visitor.doubled(name, m_graph.m_names.text(added.id));
    return AddressIndex::s_none;
  }

  void addMembers(Id alias, std::string_view text) {
    const RowFault fault = m_reader.readValue(text);
    if (fault != RowFault::None) {
      // What it leads to is unknown; it is reported as broken and as nothing else.
      m_graph.m_own[alias].add(Reach::addresses());
      m_visitor.broken(m_graph.m_names.text(alias), fault, m_reader.why());
      return;
    }
    for (const std::string_view member : m_reader.values()) addMember(alias, member);
  }

  void addMember(Id alias, std::string_view member) {
    const Id id = m_graph.m_names.find(member);
    m_visitor.member(alias, member, id != AddressIndex::s_none || hasAliasedBase(member));
    if (id != AddressIndex::s_none && id != alias) {
      m_links.push_back({alias, id});
    } else if (isMarker(member)) {
      m_graph.m_own[alias].add(Reach::marker(m_graph.m_markers.add(member).id));
    } else {
      m_graph.m_own[alias].add(Reach::addresses());
    }
  }

  // True when the service would answer for `member` with the alias that it is without its
  // extension.
  bool hasAliasedBase(std::string_view member) {
    const std::string base = withoutExtension(member);
    return !base.empty() && m_graph.m_names.find(base) != AddressIndex::s_none;
  }

  AliasGraph& m_graph;
  AliasVisitor& m_visitor;
  const CountRows& m_count;
  std::vector<Id> m_ids;  // Of the rows.
  std::vector<Link> m_links;
  RowReader m_reader{TableKind::Alias};
};

AliasGraph::AliasGraph(Database::Connection& connection, const std::string& table,
                       AliasVisitor& visitor, const CountRows& count) {
  Parser parser(*this, visitor, count);
  Database::Query query(connection, &parser, true);
  query << "select name, members from " << quotedName(table) << ";";
  query.execute();
}

std::vector<Reach> reachOf(const DirectedGraph& links, const Components& components,
                           const std::vector<Reach>& own) {
  std::vector<Reach> reach(components.nodes.size());
  // Links lead to lower numbers, so what a component leads to is complete when its turn comes.
  for (std::uint32_t component = 0; component < reach.size(); ++component) {
    for (const DirectedGraph::Node alias : components.nodes.of(component)) {
      reach[component].add(own[alias]);
      for (const DirectedGraph::Node member : links.of(alias)) {
        if (components.of[member] != component) reach[component].add(reach[components.of[member]]);
      }
    }
  }
  return reach;
}

bool isMarker(std::string_view member) {
  return member.size() > s_marker.size() &&
         stringCompareNoCase(member, s_marker, s_marker.size()) &&
         member.find('@') == std::string_view::npos;
}

std::string_view markerDomain(std::string_view marker) {
  return marker.substr(s_marker.size());
}

std::string_view domainOf(std::string_view address) {
  const std::size_t at = address.rfind('@');
  return at == std::string_view::npos ? std::string_view() : address.substr(at + 1);
}

}  // namespace Tessel::Tool
