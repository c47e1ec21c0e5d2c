// A whole alias table in memory as a graph of aliases, for what a single row does not show: which
// aliases reach which, and which lead nowhere.
#ifndef TSL_TOOLS_TABLES_ALIASGRAPH_H
#define TSL_TOOLS_TABLES_ALIASGRAPH_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "tables/AddressIndex.h"
#include "tables/DirectedGraph.h"
#include "tables/RowReader.h"
#include "tables/SpellingIndex.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

// What an alias expands to, as far as it matters here: nothing, addresses of which none is an
// all-users marker, one marker alone, or a marker with others. The library replaces a marker only
// when it is alone.
class Reach {
 public:
  constexpr Reach() = default;
  static constexpr Reach addresses() { return Reach(s_addresses); }
  static constexpr Reach marker(std::uint32_t number) { return Reach(s_firstMarker + number); }

  [[nodiscard]] bool isNothing() const { return m_state == s_nothing; }
  [[nodiscard]] bool isMixed() const { return m_state == s_mixed; }
  [[nodiscard]] bool isMarker() const { return m_state >= s_firstMarker; }
  // Requires: isMarker().
  [[nodiscard]] std::uint32_t number() const { return m_state - s_firstMarker; }
  friend bool operator==(Reach, Reach) = default;

  // What both together are.
  void add(Reach other) {
    if (other.m_state == m_state || other.isNothing()) return;
    m_state = isNothing() ? other.m_state : std::uint32_t{s_mixed};
  }

 private:
  static constexpr std::uint32_t s_nothing = 0;
  static constexpr std::uint32_t s_addresses = 1;
  static constexpr std::uint32_t s_mixed = 2;
  static constexpr std::uint32_t s_firstMarker = 3;

  explicit constexpr Reach(std::uint32_t state) : m_state(state) {}

  std::uint32_t m_state = s_nothing;
};

// What each component of `components`, which are those of `links`, expands to; `own` is what the
// members of each alias that are not aliases are.
std::vector<Reach> reachOf(const DirectedGraph& links, const Components& components,
                           const std::vector<Reach>& own);

// Called with the content of the table while it is read. Texts are valid during the call only.
class AliasVisitor {
 public:
  AliasVisitor() = default;
  virtual ~AliasVisitor() = default;
  AliasVisitor(const AliasVisitor&) = delete;
  AliasVisitor& operator=(const AliasVisitor&) = delete;

  // A row that the library cannot use: `name` as it is, what is wrong, and that in words.
  virtual void broken(std::string_view name, RowFault fault, const std::string& why);
  // A row of an address that has one already; `first` is its name, in the same or another spelling.
  virtual void doubled(std::string_view name, std::string_view first);
  // A row with `size` bytes of members.
  virtual void row(std::string_view name, std::size_t size);
  // The member `member` of `alias`, as `EmailAddress::address()` has it. `isAlias` is true if it is
  // an alias itself, or without its extension.
  virtual void member(AddressIndex::Id alias, std::string_view member, bool isAlias);
};

// The aliases of a table, and which of them have which of the others as members. Members that are
// not aliases are not kept; spellings of an address are one. So a table takes about a hundred bytes
// for each alias, and while it is read also the server's answer. An immutable value.
class AliasGraph {
 public:
  using Id = AddressIndex::Id;

  // Reads the SQL table `table`, which may be any text, with one statement. `count` is called with
  // the progress. Throws Exception when the database cannot answer; exceptions of `visitor` pass.
  AliasGraph(Database::Connection& connection, const std::string& table, AliasVisitor& visitor,
             const CountRows& count);

  [[nodiscard]] const SpellingIndex& names() const { return m_names; }
  // Members that are aliases, without those that an alias is itself.
  [[nodiscard]] const DirectedGraph& links() const { return m_links; }
  // What the members of `alias` that are not aliases are; an alias that names itself is delivered
  // to, too.
  [[nodiscard]] Reach own(Id alias) const { return m_own[alias]; }
  // All-users markers among the members.
  [[nodiscard]] const AddressIndex& markers() const { return m_markers; }
  [[nodiscard]] std::uint64_t rows() const { return m_rows; }

  // What each component of `components`, which are those of `links()`, expands to.
  [[nodiscard]] std::vector<Reach> reach(const Components& components) const {
    return reachOf(m_links, components, m_own);
  }

 private:
  class Parser;

  SpellingIndex m_names;
  AddressIndex m_markers;
  DirectedGraph m_links;
  std::vector<Reach> m_own;
  std::uint64_t m_rows = 0;
};

// True when `member` is an all-users marker of any domain.
bool isMarker(std::string_view member);

// The domain of the marker `marker`, or that of `address`.
std::string_view markerDomain(std::string_view marker);
std::string_view domainOf(std::string_view address);

}  // namespace Tessel::Tool

#endif
