// Recursive expansion of aliases, with an explicit stack: a chain of aliases may be as long as the
// table, and the caller's thread stack must not end with it.
#include "alias/AliasExpander.h"

#include <utility>
#include <vector>

#include "alias/AddressAliasDbMySQL.h"

namespace Tessel {

namespace {

// An address and those of its members that are still to be walked, in ascending order.
struct Level {
  EmailAddress address;
  std::set<EmailAddress> members;
};

// Walks what `first` reaches, depth first. `visit(address)` marks an address as visited, adds it to
// the result where it is final, and returns its members.
template <class Visit>
void s_walk(const EmailAddress& first, const std::set<EmailAddress>& visited,
            std::set<EmailAddress>& result, Visit visit) {
  std::set<EmailAddress> members = visit(first);
  if (members.empty()) return;
  std::vector<Level> levels;
  levels.push_back({first, std::move(members)});
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.members.empty()) {
      levels.pop_back();
      continue;
    }
    const EmailAddress member = std::move(level.members.extract(level.members.begin()).value());
    if (member == level.address) {
      // An alias that lists itself is delivered to as well, by the name that it was asked for.
      result.insert(level.address);
    } else if (visited.count(member) == 0) {
      levels.push_back({member, visit(member)});
    }
  }
}

}  // namespace

void AliasExpander::expand(const EmailAddress& address) {
  s_walk(address, *visited, *result, [this](const EmailAddress& current) {
    std::set<EmailAddress> members;
    visited->insert(current);
    if (store->isEveryAliasCached()) return members;
    store->queryFindMembers(current, members);
    // The requested address is no member of anything: it is not delivered to for being no alias.
    if (members.empty() && !(current == *requested)) result->insert(current);
    return members;
  });
}

AdapterExpanderNoQuery::AdapterExpanderNoQuery(Cache& source, std::set<EmailAddress>& result)
    : m_source(&source), m_result(&result) {}

void AdapterExpanderNoQuery::expand(const EmailAddress& address) const {
  s_walk(address, m_visited, *m_result, [this](const EmailAddress& current) {
    m_visited.insert(current);
    const auto found = m_source->find(current);
    if (found != m_source->end()) return found->second;
    m_result->insert(current);
    return std::set<EmailAddress>();
  });
}

CacheLoader::CacheLoader(Cache& source, Cache& target) : m_source(&source), m_target(&target) {}

void CacheLoader::operator()(const Cache::Entry& /*entry*/) const {
  // `find` moves entries to the front, which would upset a walk in progress: take the keys first.
  std::vector<EmailAddress> aliases;
  for (auto entry = m_source->begin(); entry != m_source->end(); ++entry) {
    aliases.push_back(entry->first);
  }
  for (const EmailAddress& alias : aliases) {
    std::set<EmailAddress> result;
    AdapterExpanderNoQuery(*m_source, result).expand(alias);
    m_target->add(alias, result);
  }
}

}  // namespace Tessel
