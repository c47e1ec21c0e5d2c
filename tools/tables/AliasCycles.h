// What a change of an alias table would leave behind: alias loops, and markers without effect.
#ifndef TSL_TOOLS_TABLES_ALIASCYCLES_H
#define TSL_TOOLS_TABLES_ALIASCYCLES_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "tables/AliasTable.h"
#include "tables/DirectedGraph.h"

namespace Tessel::Tool {

// A row to be written: the members it will have, and those of them that are new.
struct AliasChange {
  std::set<EmailAddress> members;
  std::set<EmailAddress> added;
};

// An alias loop, the same alias at both ends.
struct AliasCycle {
  std::vector<EmailAddress> path;
  bool isNew;  // One of the added members closes it.
};

// An all-users marker that is taken for an address, and the alias that has it.
struct LostMarker {
  std::string marker;
  EmailAddress holder;
};

// The aliases that a change leads to.
class ReachedAliases {
 public:
  // Asks for the rows that `alias` leads to after `change`, and no others. Throws Exception when
  // the database cannot answer.
  ReachedAliases(AliasTable& table, const EmailAddress& alias, const AliasChange& change);

  // The alias loop that the alias would be in; nothing when there is none. A loop that an added
  // member closes takes precedence. An alias that names itself is not a loop: it is delivered to.
  [[nodiscard]] std::optional<AliasCycle> cycle() const;
  // The marker that the alias would reach with other addresses, or from another domain: the
  // library replaces it only when it is alone, and of the domain of the alias.
  [[nodiscard]] std::optional<LostMarker> lostMarker() const;

 private:
  using Node = DirectedGraph::Node;

  Node number(const EmailAddress& address);
  void addMembers(Node alias, const std::set<EmailAddress>& members);

  std::map<std::string, Node> m_numbers;  // By comparisonKey().
  std::vector<EmailAddress> m_addresses;
  std::vector<bool> m_areAliases;
  std::vector<Link> m_links;
  std::vector<Link> m_added;
  std::set<EmailAddress> m_unasked;
  bool m_namesItself = false;
};

// The addresses of a loop as "a -> b -> a", the middle of a long one left out.
std::string textOf(const std::vector<std::string>& path);
std::string textOf(const std::vector<EmailAddress>& path);

}  // namespace Tessel::Tool

#endif
