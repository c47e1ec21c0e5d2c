// The check of the rules of one alias table.
#include "check/RuleCheck.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "tables/AliasChange.h"
#include "tables/RuleTable.h"
#include "tables/SpellingIndex.h"

namespace Tessel::Tool {

namespace {

using Id = AliasGraph::Id;

// An alias that ends within this time is worth a look.
constexpr std::chrono::days s_soon{31};

class RuleCheck {
 public:
  RuleCheck(const std::string& table, const AliasGraph& graph, Findings& findings)
      : m_table(table), m_graph(graph), m_findings(findings) {
    for (Id alias = 0; alias < graph.names().size(); ++alias) {
      m_places.emplace(m_names.add(graph.names().text(alias)).id, alias);
    }
  }

  void run(const std::vector<RuleRow>& rules, std::chrono::sys_seconds now) {
    for (const RuleRow& row : rules) checkRule(row, now);
    checkOpenAliases();
  }

 private:
  void add(Severity severity, const char* kind, std::string_view alias, const std::string& what,
           const std::string& words) {
    const std::string command = commandOn(m_table, words);
    m_findings.add({severity, kind, m_table, std::string(alias), what, command, {}});
  }

  void checkRule(const RuleRow& row, std::chrono::sys_seconds now) {
    const std::string name = row.name.empty() ? "default" : row.name;
    if (!row.rule) {
      return add(Severity::Error, "rule-broken", name,
                 "has a rule that cannot be read: nobody may write to it, and mail waits",
                 "alias rule remove " + shellWord(name));
    }
    const auto place = m_places.find(m_names.find(row.name));
    if (row.name.empty()) {
      m_default = row.rule->writers;
    } else if (place == m_places.end()) {
      return add(Severity::Warning, "rule-without-alias", name,
                 "has a rule, and is not an alias any more",
                 "alias rule remove " + shellWord(name));
    } else {
      m_writers[place->second] = row.rule->writers;
    }
    if (row.rule->writers == Writers::Listed && row.rule->listed.empty()) {
      add(Severity::Warning, "rule-of-nobody", name, "lists nobody: nobody may write to it",
          "alias rule show " + shellWord(name));
    }
    checkExpiry(name, row.rule->expires, now);
  }

  void checkExpiry(const std::string& name, const std::optional<std::chrono::sys_seconds>& expires,
                   std::chrono::sys_seconds now) {
    if (!expires || *expires >= now + s_soon) return;
    const bool isOver = *expires <= now;
    add(Severity::Notice, isOver ? "expired" : "expires-soon", name,
        (isOver ? "has expired at " : "expires at ") + timeText(*expires) + " UTC",
        isOver ? "alias prune --dry-run" : "alias rule show " + shellWord(name));
  }

  [[nodiscard]] Writers writersOf(Id alias) const {
    const auto own = m_writers.find(alias);
    return own == m_writers.end() ? m_default : own->second;
  }

  void checkOpenAliases() {
    const Components components = componentsOf(m_graph.links());
    const std::vector<Reach> reach = m_graph.reach(components);
    for (Id alias = 0; alias < m_graph.names().size(); ++alias) {
      if (writersOf(alias) != Writers::Anyone) continue;
      const std::string_view name = m_graph.names().text(alias);
      const Reach found = reach[components.of[alias]];
      if (found.isMarker() && isOfDomain(name, found)) {
        add(Severity::Notice, "open-all-users", name,
            "means all users of its domain, and anyone may write to it",
            "alias rule set " + shellWord(name) + " --writers domain");
      }
      for (const Id member : m_graph.links().of(alias)) {
        if (writersOf(member) == Writers::Anyone) continue;
        add(Severity::Notice, "open-into-closed", name,
            "is open to anyone, and leads to " + std::string(m_graph.names().text(member)) +
                ": whoever may not write to that is refused here, too",
            "alias rule show " + shellWord(m_graph.names().text(member)));
      }
    }
  }

  [[nodiscard]] bool isOfDomain(std::string_view name, const Reach& reach) const {
    const std::string_view domain = markerDomain(m_graph.markers().text(reach.number()));
    return stringCompareNoCase(domain, domainOf(name), 0);
  }

  const std::string& m_table;
  const AliasGraph& m_graph;
  Findings& m_findings;
  SpellingIndex m_names;
  std::map<SpellingIndex::Id, Id> m_places;  // The aliases by their numbers there.
  std::map<Id, Writers> m_writers;
  Writers m_default = Writers::Anyone;
};

}  // namespace

void checkRules(Database::Connection& connection, const std::string& table, const AliasGraph& graph,
                std::chrono::sys_seconds now, Findings& findings) {
  RuleTable rules(connection, table);
  if (!rules.isThere()) return;
  RuleCheck(table, graph, findings).run(rules.rows(), now);
}

}  // namespace Tessel::Tool
