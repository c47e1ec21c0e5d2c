// The check of one alias table.
#include "check/AliasCheck.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "check/RuleCheck.h"
#include "tables/AliasChange.h"
#include "tables/AliasGraph.h"
#include "tables/Extension.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// Part of the members column that may be in use before it is worth a warning, in percent.
constexpr std::size_t s_fullPercent = 90;

// Finds what single rows show.
class RowCheck : public AliasVisitor {
 public:
  RowCheck(const std::string& table, std::size_t widest, MailUsers& users, Findings& findings)
      : m_table(table), m_widest(widest), m_users(users), m_findings(findings) {}

  void broken(std::string_view name, RowFault fault, const std::string& why) override {
    const bool hasName = fault != RowFault::BadKey && fault != RowFault::EmptyKey;
    const std::string remove = commandOn(m_table, "alias remove " + shellWord(name));
    add(Severity::Error, "broken-row", name,
        why + (fault == RowFault::EmptyValue ? ": the library does not treat it as an alias"
                                             : ": every program that reads the whole table fails"),
        hasName && !remove.empty() ? remove : selectRow(m_table, "name", name));
  }

  void doubled(std::string_view name, std::string_view first) override {
    add(Severity::Error, "double-row", name,
        "is the same address as '" + std::string(first) +
            "', which has a row of its own: which of them answers depends on how it is asked",
        selectRow(m_table, "name", name));
  }

  void row(std::string_view name, std::size_t size) override {
    if (name.starts_with("*@")) {
      add(Severity::Notice, "catch-all", name,
          "gets the mail of all names of its domain that are no alias, mailbox or mask if the"
          " lookup service runs with --catch-all, and otherwise only that for '*'",
          commandOn(m_table, "alias show " + shellWord(name)));
    }
    if (size * 100 < m_widest * s_fullPercent) return;
    add(Severity::Warning, "members-limit", name,
        "has " + std::to_string(size) + " bytes of members, and its column holds " +
            std::to_string(m_widest),
        m_table == "alias" ? "tsl-address-map init" : "");
  }

  void member(AddressIndex::Id /*alias*/, std::string_view member, bool isAlias) override {
    if (isAlias || isMarker(member)) return;
    if (member.find('@') == std::string_view::npos) {
      if (!m_reported.add(member).isNew) return;
      add(Severity::Warning, "no-domain", member,
          "is a member without a domain: mail for it cannot be delivered", selectMembers(member));
      return;
    }
    const MailUsers::Kind kind = m_users.failure() ? MailUsers::Kind::Unknown : kindOf(member);
    const bool isDisabled = kind == MailUsers::Kind::Disabled;
    if (!isDisabled && kind != MailUsers::Kind::Nobody) return;
    if (!m_reported.add(member).isNew) return;
    add(Severity::Warning, isDisabled ? "disabled-member" : "dangling-member", member,
        isDisabled
            ? "is a member, and a disabled mail user: mail for the list reaches it, or is refused"
            : "is a member, but neither an alias nor a mail user of its domain, which is served"
              " here",
        commandOn(m_table, "alias who " + shellWord(member)));
  }

 private:
  // What the configuration says about `member`, or about what it is without its extension.
  MailUsers::Kind kindOf(std::string_view member) {
    const MailUsers::Kind kind = m_users.kindOf(member);
    if (kind != MailUsers::Kind::Nobody) return kind;
    const std::string base = withoutExtension(member);
    return base.empty() ? kind : m_users.kindOf(base);
  }

  void add(Severity severity, const char* kind, std::string_view address, const std::string& what,
           const std::string& command) {
    m_findings.add({severity, kind, m_table, std::string(address), what, command, {}});
  }

  [[nodiscard]] std::string selectMembers(std::string_view member) const {
    return "select name from " + quotedName(m_table) + " where find_in_set( " + literal(member) +
           ", members );";
  }

  const std::string& m_table;
  std::size_t m_widest;
  MailUsers& m_users;
  Findings& m_findings;
  SpellingIndex m_reported;
};

// Finds what only the whole table shows.
class GraphCheck {
 public:
  GraphCheck(const std::string& table, const AliasGraph& graph, MailUsers& users,
             Findings& findings)
      : m_table(table),
        m_graph(graph),
        m_users(users),
        m_findings(findings),
        m_components(componentsOf(graph.links())),
        m_reach(graph.reach(m_components)) {}

  void run() {
    for (std::uint32_t component = 0; component < m_reach.size(); ++component) {
      const auto aliases = m_components.nodes.of(component);
      if (aliases.size() > 1) addCycle(component);
      for (const AliasGraph::Id alias : aliases) checkAlias(component, alias, aliases.size() > 1);
    }
  }

 private:
  [[nodiscard]] std::string name(AliasGraph::Id alias) const {
    return std::string(m_graph.names().text(alias));
  }

  void add(Severity severity, const char* kind, AliasGraph::Id alias, const std::string& what) {
    const std::string command = commandOn(m_table, "alias tree " + shellWord(name(alias)));
    m_findings.add({severity, kind, m_table, name(alias), what, command, {}});
  }

  void addCycle(std::uint32_t component) {
    const auto aliases = m_components.nodes.of(component);
    const auto first = *std::min_element(aliases.begin(), aliases.end(), [&](auto a, auto b) {
      return m_graph.names().text(a) < m_graph.names().text(b);
    });
    std::vector<std::string> path;
    for (const DirectedGraph::Node node : cycleThrough(m_graph.links(), m_components, first)) {
      path.push_back(name(node));
    }
    Finding finding{Severity::Warning,
                    "cycle",
                    m_table,
                    name(first),
                    textOf(path),
                    commandOn(m_table, "alias tree " + shellWord(name(first))),
                    {}};
    if (m_reach[component].isNothing()) {
      finding.severity = Severity::Error;
      for (const AliasGraph::Id alias : aliases) finding.addresses.push_back(name(alias));
      std::sort(finding.addresses.begin(), finding.addresses.end());
      finding.what += "; mail for " + std::to_string(aliases.size()) +
                      " addresses reaches nobody: " + listed(finding.addresses);
    } else {
      finding.what += "; mail reaches the other members";
    }
    m_findings.add(finding);
  }

  void checkAlias(std::uint32_t component, AliasGraph::Id alias, bool isInCycle) {
    const Reach reach = m_reach[component];
    if (reach.isNothing()) {
      if (!isInCycle) {
        add(Severity::Error, "expands-to-nothing", alias,
            "leads to an alias loop only: mail for it reaches nobody");
      }
    } else if (reach.isMarker()) {
      checkMarker(alias, m_graph.markers().text(reach.number()));
    } else if (reach.isMixed() && isFirstMixed(component, alias)) {
      add(Severity::Error, "marker-mixed", alias,
          "reaches an all-users marker and other addresses: the marker is taken for an address");
    }
  }

  // An alias that reaches `marker` and nothing else.
  void checkMarker(AliasGraph::Id alias, std::string_view marker) {
    const std::string domain(markerDomain(marker));
    if (!stringCompareNoCase(domain, domainOf(m_graph.names().text(alias)), 0)) {
      add(Severity::Error, "marker-foreign", alias,
          "reaches " + std::string(marker) +
              ", the marker of another domain than its own: it is taken for an address");
      return;
    }
    const auto mailboxes = m_users.mailboxes(domain);
    if (m_users.failure()) return;
    if (!mailboxes) {
      add(Severity::Error, "marker-unknown-domain", alias,
          "means all users of " + domain + ", which the configuration does not know");
    } else if (!hasSpelling(domain)) {
      add(Severity::Error, "marker-spelling", alias,
          "means all users of " + domain + ", which the configuration has as " +
              m_users.spellingsOf(domain).front().name +
              ": the library does not find it, and takes the marker for an address");
    } else if (*mailboxes == 0) {
      add(Severity::Error, "expands-to-nothing", alias,
          "means all users of " + domain + ", which has no user mailbox");
    }
  }

  // True when the configuration has `domain` in this spelling, which is what the library looks for.
  [[nodiscard]] bool hasSpelling(const std::string& domain) const {
    const std::vector<StoredDomain> spellings = m_users.spellingsOf(domain);
    return std::any_of(spellings.begin(), spellings.end(), [&](const StoredDomain& one) {
      return stringCompareNoCase(one.name, domain, 0);
    });
  }

  // False when what is wrong comes from one of the members, which is reported then.
  [[nodiscard]] bool isFirstMixed(std::uint32_t component, AliasGraph::Id alias) const {
    const auto members = m_graph.links().of(alias);
    if (m_components.nodes.of(component).size() > 1) {
      return alias == m_components.nodes.of(component).front();
    }
    return std::none_of(members.begin(), members.end(), [&](AliasGraph::Id member) {
      return m_reach[m_components.of[member]].isMixed();
    });
  }

  const std::string& m_table;
  const AliasGraph& m_graph;
  MailUsers& m_users;
  Findings& m_findings;
  Components m_components;
  std::vector<Reach> m_reach;
};

}  // namespace

std::uint64_t checkAliasTable(Database::Connection& connection, const std::string& table,
                              std::size_t widest, MailUsers& users, Findings& findings,
                              const CountRows& count) {
  RowCheck rows(table, widest, users, findings);
  const AliasGraph graph(connection, table, rows, count);
  GraphCheck(table, graph, users, findings).run();
  checkRules(connection, table, graph,
             std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()), findings);
  return graph.rows();
}

}  // namespace Tessel::Tool
