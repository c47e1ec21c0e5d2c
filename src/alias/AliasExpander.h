// Recursive expansion of aliases: over the table, and over raw member sets in memory.
#ifndef TSL_ALIAS_ALIASEXPANDER_H
#define TSL_ALIAS_ALIASEXPANDER_H

#include <set>

#include "address/EmailAddress.h"
#include "core/LRUCache.h"

namespace Tessel {

class AddressAliasDbMySQL;

// One expansion over the table; lives on the stack of its caller. Every address is asked for at
// most once, which also breaks alias loops. All pointers must outlive it. One thread.
struct AliasExpander {
  const AddressAliasDbMySQL* store;
  const EmailAddress* requested;
  std::set<EmailAddress>* result;
  std::set<EmailAddress>* visited;

  // Adds what `address` expands to to the result. An address that is no alias expands to itself,
  // but for the requested one. Throws Exception when the table cannot be read.
  void expand(const EmailAddress& address);
};

// One expansion over a cache of raw member sets. Unlike `AliasExpander`, an address that the cache
// does not hold expands to itself even when it is the first. One thread.
class AdapterExpanderNoQuery {
 public:
  using Cache = LRUCache<EmailAddress, std::set<EmailAddress>>;

  // `source` and `result` must outlive the expander.
  AdapterExpanderNoQuery(Cache& source, std::set<EmailAddress>& result);

  // Adds what `address` expands to to the result.
  void expand(const EmailAddress& address) const;

 private:
  Cache* m_source;
  std::set<EmailAddress>* m_result;
  mutable std::set<EmailAddress> m_visited;
};

// Functor over the entries of a cache of raw member sets: fills a cache of expanded sets.
//
// Deliberate: each call ignores its argument and expands the whole source, so a source of n entries
// is expanded n times over; the target keeps the first set of each key. Pinned by
// AliasExpander.TheCacheLoaderExpandsTheWholeSourceOnEveryCall.
class CacheLoader {
 public:
  using Cache = LRUCache<EmailAddress, std::set<EmailAddress>>;

  // `source` and `target` must outlive the functor.
  CacheLoader(Cache& source, Cache& target);

  void operator()(const Cache::Entry& entry) const;

 private:
  Cache* m_source;
  Cache* m_target;
};

}  // namespace Tessel

#endif
