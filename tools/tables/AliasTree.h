// The expansion of an alias with everything that it meets.
#ifndef TSL_TOOLS_TABLES_ALIASTREE_H
#define TSL_TOOLS_TABLES_ALIASTREE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "tables/AliasTable.h"

namespace Tessel::Tool {

// What an address of the tree is.
enum class NodeKind {
  Final,          // Not an alias: mail is delivered to it.
  Alias,          // Its members are below it.
  Repeated,       // An alias whose members are above already.
  Cycle,          // An alias that is being expanded: the library leaves it out.
  SelfDelivery,   // A member that is the alias itself: mail is delivered to it.
  AllUsers,       // Means the user mailboxes of the domain.
  MissingDomain,  // A marker whose domain the configuration does not know: it stays unchanged.
  Marker,         // A marker that is treated as an address: it is not alone, or of another domain.
  Broken,         // Its row cannot be read: every expansion that meets it fails.
};

const char* textOf(NodeKind kind);

// The steps of the library's expansion, in its order: depth first, the members of each alias in
// ascending order, each alias once. Rows in another spelling are followed as the service does it;
// to the library, such a member is a final address.
class AliasTree {
 public:
  struct Node {
    const EmailAddress* address;
    const AliasRow* row;  // Null when it has none.
    NodeKind kind;
    std::uint32_t depth;       // 0 for the root.
    std::uint32_t parent;      // The place of the alias that it is a member of.
    const EmailAddress* base;  // Without its tag, when it has no row and that has one; or null.

    // True when its row has another spelling.
    [[nodiscard]] bool isSpelled() const { return row != nullptr && !(row->alias == *address); }
  };

  // Reads the rows that `root` leads to, those of one depth with few statements. Throws Exception
  // when the database cannot answer.
  AliasTree(AliasTable& table, const EmailAddress& root);
  AliasTree(const AliasTree&) = delete;
  AliasTree& operator=(const AliasTree&) = delete;

  // Each alias before its members; the root first. A marker is `Marker` here.
  [[nodiscard]] const std::vector<Node>& nodes() const { return m_nodes; }
  // The root's row; null when it has none.
  [[nodiscard]] const AliasRow* row() const { return m_nodes.front().row; }
  // The final addresses, as the library has them before it replaces the all-users marker.
  [[nodiscard]] const std::set<EmailAddress>& finals() const { return m_finals; }
  // True when the library replaces the one final address, which is the marker of the root's domain.
  [[nodiscard]] bool isAllUsers() const;
  // Sets what the marker of isAllUsers() is.
  void setMarker(NodeKind kind);

 private:
  struct Known;
  using KnownAddresses = std::map<EmailAddress, Known>;
  struct Known {
    AliasRow row;
    bool hasRow = false;
    bool isVisited = false;
    bool isOpen = false;  // Is being expanded.
    EmailAddress base;    // As in Node; or null.
    // The address of the row, when that has another spelling; then the above is there.
    KnownAddresses::value_type* spelled = nullptr;
  };

  static KnownAddresses::value_type& ownOf(KnownAddresses::value_type& known) {
    return known.second.spelled != nullptr ? *known.second.spelled : known;
  }
  void read(AliasTable& table, const EmailAddress& root);
  void walk(const EmailAddress& root);
  void readBases(AliasTable& table);
  NodeKind visit(Known& known, const EmailAddress& address, bool isRoot);
  void add(const KnownAddresses::value_type& known, NodeKind kind, std::uint32_t depth,
           std::uint32_t parent);

  KnownAddresses m_known;
  std::vector<Node> m_nodes;
  std::set<EmailAddress> m_finals;
};

}  // namespace Tessel::Tool

#endif
