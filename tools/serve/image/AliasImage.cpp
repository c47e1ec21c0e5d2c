// An alias table in memory.
#include "serve/image/AliasImage.h"

#include <algorithm>
#include <numeric>
#include <unordered_map>
#include <utility>

#include "alias/AddressAliasDbMySQL.h"
#include "alias/AliasExpander.h"
#include "base/stringCompareNoCase.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/DirectedGraph.h"
#include "tables/RowReader.h"

namespace Tessel::Serve {

using Tool::AddressIndex;

namespace {

// Bytes of members that are read for a short effort.
constexpr std::size_t s_shortEffort = 32768;

// Thrown when an expansion takes too long.
struct TooMuch {};

// Thrown when the rule of an alias cannot be read.
struct NoRule {};

}  // namespace

// The rows as the library's expander asks for them. It holds the one that was asked for last: the
// image has them all, and answers are kept elsewhere. One thread.
class AliasImage::LastRow : public LRUCache<EmailAddress, std::set<EmailAddress>> {
 public:
  // `image` and `presenceOf` must outlive the object. `find` throws TooMuch instead of reading more
  // bytes of members than `most`, and NoRule.
  LastRow(const AliasImage& image, std::size_t most, const PresenceOf& presenceOf)
      : LRUCache(1), m_image(image), m_presenceOf(presenceOf), m_left(most) {}

  iterator find(const EmailAddress& address) const override {
    const RowStore::Id row = m_image.rowOf(address);
    if (row == AddressIndex::s_none) return end();
    if (!isPresent(row)) {
      // Without members it reaches nobody, and is no final address either.
      const_cast<LastRow*>(this)->add(address, {});
      return LRUCache::find(address);
    }
    const std::size_t size = m_image.m_rows.second(row).size();
    if (size > m_left) throw TooMuch();
    m_left -= size;
    // Reading a row fills the cache: that is what a cache is for, hence the cast.
    const_cast<LastRow*>(this)->add(address, m_image.members(row));
    return LRUCache::find(address);
  }

  // True when an alias was left out that has expired.
  [[nodiscard]] bool hasExpired() const { return m_hasExpired; }

 private:
  bool isPresent(RowStore::Id row) const {
    if (!m_presenceOf) return true;
    const RuleImage::Presence presence = m_presenceOf(m_image.m_keys.text(row));
    if (presence == RuleImage::Presence::Unknown) throw NoRule();
    if (presence == RuleImage::Presence::There) return true;
    m_hasExpired = true;
    return false;
  }

  const AliasImage& m_image;
  const PresenceOf& m_presenceOf;
  mutable bool m_hasExpired = false;
  mutable std::size_t m_left;
};

// Takes the rows of a table in.
class AliasImage::Reader {
 public:
  // `image` must outlive the reader.
  explicit Reader(AliasImage& image) : m_image(image) {}

  void take(std::string_view name, std::string_view members) {
    const Tool::RowFault fault = m_reader.read(name, members);
    // Not all of the text may belong to the address: blanks around it do not.
    const std::string_view address = m_reader.key().empty() ? name : m_reader.key();
    const bool canBeAsked = Tool::addressKey(address, m_key);
    if (!canBeAsked) m_key.clear();
    if (fault != Tool::RowFault::None) {
      m_image.m_brokenRows.add(name, members, m_reader.why(), m_key);
    } else if (!canBeAsked) {
      m_image.m_brokenRows.add(name, members, "bad alias: nobody can ask for it", "");
    } else if (m_image.m_keys.add(m_key).isNew) {
      m_image.m_rows.add(name, members);
    } else {
      m_image.m_brokenRows.add(name, members, "another row is of the same address", "");
    }
  }

 private:
  AliasImage& m_image;
  std::string m_key;
  Tool::RowReader m_reader{Tool::TableKind::Alias};
};

AliasImage::AliasImage(const RowSource& source) {
  Reader reader(*this);
  source(
      [&reader](std::string_view name, std::string_view members) { reader.take(name, members); });
  m_rows.shrink();
}

Expansion AliasImage::expand(std::string_view key, Effort effort, const ListUsers& listUsers,
                             const PresenceOf& presenceOf) const {
  Expansion expansion;
  if (presenceOf && isAlias(key) && presenceOf(key) == RuleImage::Presence::Expired) {
    return expansion;
  }
  const RowStore::Id row = m_keys.find(key);
  if (row == AddressIndex::s_none) {
    if (m_brokenRows.hasKey(key)) expansion.kind = Expansion::Kind::Broken;
    return expansion;
  }
  const EmailAddress alias = EmailAddress::rfc5321Parse(m_rows.first(row), false);
  std::set<EmailAddress> reached;
  const bool isShort = effort == Effort::Short;
  LastRow rows(*this, isShort ? s_shortEffort : std::string_view::npos, presenceOf);
  try {
    AdapterExpanderNoQuery(rows, reached).expand(alias);
  } catch (const TooMuch&) {
    expansion.kind = Expansion::Kind::Unknown;
    return expansion;
  } catch (const NoRule&) {
    expansion.kind = Expansion::Kind::NoRule;
    return expansion;
  }
  expansion.hasExpired = rows.hasExpired();
  if (reachesBroken(reached)) {
    expansion.kind = Expansion::Kind::Broken;
    return expansion;
  }
  expansion.dependsOnUsers = reached.size() == 1 && Tool::isMarker(reached.begin()->address());
  // A domain may have any number of users.
  if (expansion.dependsOnUsers && isShort) {
    expansion.kind = Expansion::Kind::Unknown;
    return expansion;
  }
  expansion.addresses =
      listUsers ? AddressAliasDbMySQL::withAllUsers(alias, reached, listUsers) : reached;
  for (const EmailAddress& address : expansion.addresses) {
    // A marker that is left is not a mailbox: mail to it would reach whoever has that name.
    if (!address.domain().empty() || !Tool::isMarker(address.address())) continue;
    expansion.kind = Expansion::Kind::NoUsers;
    return expansion;
  }
  expansion.kind = expansion.addresses.empty() ? Expansion::Kind::Nobody : Expansion::Kind::Found;
  return expansion;
}

// To the expander, an alias that was left out is an address like any other.
bool AliasImage::reachesBroken(const std::set<EmailAddress>& reached) const {
  if (!m_brokenRows.hasKeys()) return false;
  std::string key;
  return std::any_of(reached.begin(), reached.end(), [&](const EmailAddress& address) {
    return Tool::addressKey(address.address(), key) && m_brokenRows.hasKey(key) &&
           m_keys.find(key) == AddressIndex::s_none;
  });
}

bool AliasImage::isAlias(std::string_view key) const {
  return m_keys.find(key) != AddressIndex::s_none || m_brokenRows.hasKey(key);
}

std::optional<std::string_view> AliasImage::membersText(std::string_view key) const {
  const RowStore::Id row = m_keys.find(key);
  return row == AddressIndex::s_none ? std::nullopt : std::optional(m_rows.second(row));
}

std::vector<std::string> AliasImage::loop(std::string_view key) const {
  const RowStore::Id first = m_keys.find(key);
  if (first == AddressIndex::s_none) return {};
  std::unordered_map<RowStore::Id, Tool::DirectedGraph::Node> numbers{{first, 0}};
  std::vector<RowStore::Id> rows{first};
  std::vector<Tool::Link> links;
  for (Tool::DirectedGraph::Node alias = 0; alias < rows.size(); ++alias) {
    for (const EmailAddress& member : members(rows[alias])) {
      const RowStore::Id row = rowOf(member);
      if (row == AddressIndex::s_none || row == rows[alias]) continue;
      const auto next = static_cast<Tool::DirectedGraph::Node>(rows.size());
      const auto [known, isNew] = numbers.emplace(row, next);
      if (isNew) rows.push_back(row);
      links.push_back({alias, known->second});
    }
  }
  std::vector<Tool::DirectedGraph::Node> nodes(rows.size());
  std::iota(nodes.begin(), nodes.end(), 0);
  const std::vector<Tool::Cycle> cycles =
      Tool::cyclesOf(Tool::DirectedGraph(rows.size(), links), nodes, {});
  std::vector<std::string> loop;
  if (cycles.empty()) return loop;
  for (const Tool::DirectedGraph::Node node : cycles.front().path) {
    loop.emplace_back(m_rows.first(rows[node]));
  }
  return loop;
}

std::set<EmailAddress> AliasImage::members(RowStore::Id id) const {
  return EmailAddress::rfc5322ParseSet(m_rows.second(id), true, false);
}

RowStore::Id AliasImage::rowOf(const EmailAddress& address) const {
  std::string key;
  return Tool::addressKey(address.address(), key) ? m_keys.find(key) : AddressIndex::s_none;
}

}  // namespace Tessel::Serve
