// The command `alias who`: through which aliases mail reaches an address.
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/RowReport.h"
#include "tables/AddressKey.h"
#include "tables/AddressUse.h"
#include "tables/AliasChange.h"
#include "tables/AliasGraph.h"
#include "tables/MailUsers.h"
#include "tables/RuleTable.h"
#include "tables/TableNames.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Id = AliasGraph::Id;

// Of longer paths only the ends are shown: in a long chain, the total length of all paths is the
// square of its length.
constexpr std::uint32_t s_farthest = 1000;

// The broken rows of the table, and which of the others have an address among their members, in any
// spelling.
class Holders : public AliasVisitor {
 public:
  Holders(std::string_view member, std::string table)
      : m_key(comparisonKey(member)), m_table(std::move(table)) {}

  void broken(std::string_view name, RowFault fault, const std::string& why) override {
    AliasRow row;
    row.name = name;
    row.fault = fault;
    row.why = why;
    const bool hasName = fault != RowFault::BadKey && fault != RowFault::EmptyKey;
    if (hasName) row.alias = EmailAddress::rfc5321Parse(name, false);
    report(brokenRow(row, m_table));
    m_isBroken = true;
  }

  void member(Id alias, std::string_view member, bool /*isAlias*/) override {
    if (leadsTo(member, m_key)) m_holders.push_back(alias);
  }

  [[nodiscard]] const std::vector<Id>& holders() const { return m_holders; }
  [[nodiscard]] bool isBroken() const { return m_isBroken; }

 private:
  std::string m_key;
  std::string m_table;
  std::vector<Id> m_holders;
  bool m_isBroken = false;
};

// A shortest path from each alias to one of some others.
class Paths {
 public:
  // The paths to `ends`. None leads through `avoided`, which may be one of them. `graph` must
  // outlive the object.
  // `rules` has the rules of aliases by their comparisonKey(), and must outlive the object, too.
  Paths(const AliasGraph& graph, const std::map<std::string, std::string>& rules,
        const std::vector<Id>& ends, Id avoided)
      : m_graph(graph), m_rules(rules), m_aliases(ends), m_steps(graph.names().size()) {
    for (const Id end : ends) m_steps[end] = {end, 0};
    const DirectedGraph reversed = graph.links().reversed();
    for (std::size_t i = 0; i < m_aliases.size(); ++i) {
      const Id reached = m_aliases[i];
      for (const Id above : reversed.of(reached)) {
        if (has(above) || above == avoided) continue;
        m_steps[above] = {reached, m_steps[reached].distance + 1};
        m_aliases.push_back(above);
      }
    }
  }

  // The aliases that have a path, the nearest first.
  [[nodiscard]] const std::vector<Id>& aliases() const { return m_aliases; }
  [[nodiscard]] const std::map<std::string, std::string>& rules() const { return m_rules; }
  [[nodiscard]] bool has(Id alias) const { return m_steps[alias].next != AddressIndex::s_none; }

  // Adds the path of `alias`, with `last` behind its end.
  void write(Id alias, const std::vector<std::string>& last, ItemList& list) const {
    const std::string name(m_graph.names().text(alias));
    const std::uint32_t distance = m_steps[alias].distance;
    std::string text = name + " -> ... (" + std::to_string(distance) + " more) -> " + last.back();
    std::vector<std::string> path;
    if (distance <= s_farthest) {
      path.push_back(name);
      for (Id at = alias; m_steps[at].next != at;) {
        at = m_steps[at].next;
        path.emplace_back(m_graph.names().text(at));
      }
      path.insert(path.end(), last.begin(), last.end());
      text = textOf(path);
    }
    const auto rule = m_rules.find(comparisonKey(name));
    if (rule != m_rules.end()) text += " (rule: " + printable(rule->second) + ")";
    list.add(text, [&] {
      Json document{{"alias", name}, {"path", path.empty() ? Json() : Json(path)}};
      if (rule != m_rules.end()) document["rule"] = rule->second;
      return document;
    });
  }

 private:
  struct Step {
    Id next = AddressIndex::s_none;  // The alias itself at the end of the path.
    std::uint32_t distance = 0;      // Steps to the end.
  };

  const AliasGraph& m_graph;
  const std::map<std::string, std::string>& m_rules;
  std::vector<Id> m_aliases;
  std::vector<Step> m_steps;  // By the alias.
};

// Writes the paths of the aliases that mean all users of the domain of `address` by the marker
// `marker`, but not of those that have one of `direct`. False when there is no such alias.
bool s_writeAllUsers(const AliasGraph& graph, AddressIndex::Id marker, const EmailAddress& address,
                     const Paths& direct, ItemList& list) {
  const std::string_view domain = markerDomain(graph.markers().text(marker));
  const Components components = componentsOf(graph.links());
  const std::vector<Reach> reach = graph.reach(components);
  const auto standsForAll = [&](Id alias) {
    const Reach found = reach[components.of[alias]];
    return found.isMarker() && found.number() == marker;
  };
  // Only these lead to the marker and to nothing else.
  std::vector<Id> holders;
  for (Id alias = 0; alias < graph.names().size(); ++alias) {
    if (standsForAll(alias) && graph.own(alias).isMarker()) holders.push_back(alias);
  }
  bool any = false;
  const Paths paths(graph, direct.rules(), holders, AddressIndex::s_none);
  for (const Id alias : paths.aliases()) {
    const bool isOfDomain = stringCompareNoCase(domainOf(graph.names().text(alias)), domain, 0);
    if (!isOfDomain || !standsForAll(alias) || direct.has(alias)) continue;
    paths.write(alias, {std::string(graph.markers().text(marker)), address.address()}, list);
    any = true;
  }
  return any;
}

// The same for all markers of the domain, in any spelling.
bool s_writeAllUsers(const AliasGraph& graph, const EmailAddress& address, const Paths& direct,
                     ItemList& list) {
  const std::string domain = comparisonDomain(address.domain());
  bool any = false;
  for (AddressIndex::Id marker = 0; marker < graph.markers().size(); ++marker) {
    if (comparisonDomain(markerDomain(graph.markers().text(marker))) != domain) continue;
    any = s_writeAllUsers(graph, marker, address, direct, list) || any;
  }
  return any;
}

ExitCode s_who(Session& session, const std::string& text) {
  const EmailAddress address = parseAddress(text, false);
  session.tellTarget(TableKind::Alias);
  const std::string table = aliasTableName(session.tableName());
  Database::Connection connection{std::string(s_database)};
  Holders holders(address.address(), table);
  Progress progress;
  progress.endForPager();
  progress.begin("reading", "rows");
  const AliasGraph graph(connection, table, holders, progress.counter());
  progress.begin("looking for paths", "aliases");
  const AddressIndex::Id self = graph.names().find(address.address());
  const auto rules = RuleTable(connection, table).texts();
  const Paths paths(graph, rules, holders.holders(), self);
  progress.end();
  ItemList list(session.output());
  for (const Id alias : paths.aliases()) paths.write(alias, {address.address()}, list);
  bool any = !paths.aliases().empty();
  if (graph.markers().size() != 0) {
    MailUsers users;
    const bool isMailbox = users.kindOf(address.address()) == MailUsers::Kind::Mailbox;
    if (isMailbox) any = s_writeAllUsers(graph, address, paths, list) || any;
    if (users.failure()) {
      say("warning: aliases for all users of a domain are left out: " + users.failure()->subject() +
          ": " + users.failure()->why());
    }
  }
  list.end();
  if (!any) say("no alias of table " + table + " leads to " + address.address());
  if (self != AddressIndex::s_none) {
    say(address.address() + " is an alias itself: mail for it goes to its members");
  }
  if (holders.isBroken()) return ExitCode::BadData;
  return any ? ExitCode::Done : ExitCode::NotFound;
}

}  // namespace

void addAliasWhoCommand(Command& alias) {
  const auto address = std::make_shared<std::string>();
  Command who = alias.command(
      "who", "Show the aliases through which mail reaches an address; exit 1 when none does",
      "  tsl-address-map alias who ann@example.com\n"
      "One line per alias, the nearest first, with a shortest path: ALIAS -> ... -> ADDRESS. The"
      " whole table is read.\n"
      "With --json a list of {\"alias\", \"path\"}.\n",
      Preparation::Database, withArguments(s_who, address));
  who.argument("ADDRESS", *address, "An address");
}

}  // namespace Tessel::Tool
