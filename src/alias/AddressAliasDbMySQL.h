// One alias table in MariaDB/MySQL.
#ifndef TSL_ALIAS_ADDRESSALIASDBMYSQL_H
#define TSL_ALIAS_ADDRESSALIASDBMYSQL_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "address/EmailAddress.h"
#include "base/Mutex.h"
#include "core/LRUCache.h"
#include "map/AddressAliasDbImpl.h"

namespace Tessel {

namespace Database {
class Query;
}

class AddressMapDbMySQL;

// An alias table: rows of an alias address (`name`) and its members (`members`, one text), with a
// cache of expanded aliases in front.
//
// Members text: the members in ascending order, each as `operator<<` of EmailAddress writes it,
// joined by "," without blanks; empty for no members. It is read as an address list of RFC 5322,
// section 3.4, whose addresses may lack a domain.
//
// Deliberate: writes touch neither the cache nor the row count, so cached expansions stay as they
// were until the store ends. Pinned by AliasExpansion.WritesDoNotReachCachedExpansions.
//
// Any thread may call any operation. Each statement, with the processing of its rows, holds the
// mutex of the backend. Failures of the database and of address parsing pass as Exception. The
// order of the virtual operations and of the fields is part of the binary interface.
class AddressAliasDbMySQL : public AddressAliasDbImpl {
 public:
  using Members = std::set<EmailAddress>;
  using Entries = std::map<EmailAddress, Members>;
  using Cache = LRUCache<EmailAddress, Members>;

  // The table `alias` for the empty `name`, otherwise `alias_NAME`. With `preload` true the rows
  // are read and counted; the cache stays empty. `mapDb` must outlive every use of the table.
  AddressAliasDbMySQL(AddressMapDbMySQL& mapDb, bool preload, const std::string& name);
  ~AddressAliasDbMySQL() override;

  // See `AddressAliasDb`. A hit takes no lock but the cache's, and copies the cached set after that
  // lock is released; a miss that the cache cannot answer holds the backend's mutex over the whole
  // expansion.
  [[nodiscard]] std::set<EmailAddress> expandAlias(const EmailAddress& address) const override;
  void getAliasNames(std::set<EmailAddress>& names) const override;
  void exportToFile(const std::string& path) override;
  void importFromFile(const std::string& path) override;

  // Puts the aliases whose address ends in "@" and `domain`, or all for "*", into `entries`, which
  // is not cleared. Deliberate: `domain` goes into the SQL as it is, unescaped, and "%" and "_" in
  // it match anything: the caller must know it to be safe.
  virtual void queryFindByDomain(const std::string& domain, Entries& entries) const;

  // Puts the aliases whose members text contains the text of `member` into `entries`, which is not
  // cleared. Deliberate: a plain substring match, so "bob@d" also finds members "jimbob@d", and "%"
  // and "_" match anything.
  virtual void queryFindByMemberUser(const EmailAddress& member, Entries& entries) const;

  // Replaces `members` by the members of `alias`; leaves it as it is when there is no such alias.
  virtual void queryFindMembers(const EmailAddress& alias, Members& members) const;

  // Adds every row to `cache` and sets the row count.
  void queryEntries(Cache& cache);

  // Adds the alias, or replaces the members of an existing one. Deliberate: the members text goes
  // into the SQL unescaped: the caller must know it to be safe.
  void queryAdd(const EmailAddress& alias, const Members& members);

  // Deletes the alias, if there is one.
  void queryDelete(const EmailAddress& alias);

  // Deletes every alias whose address ends in "@" and `domain`. Deliberate: `domain` goes into the
  // SQL as it is, and "%" and "_" in it match anything: the caller must know it to be safe.
  void queryDelete(const std::string& domain);

  // Writes the members text of `members` to `stream`.
  static void writeMemberSet(const Members& members, std::ostream& stream);

  // `members`, the expansion of `alias`, or the user mailboxes of the alias's domain when the only
  // member is the all-users marker of that very domain. The marker stays when the configuration
  // does not know the domain or cannot be read. Takes no lock of the table.
  static Members withAllUsers(const EmailAddress& alias, const Members& members);

  // Calls the second argument with the name of each user mailbox of the domain, best in ascending
  // order; false when the domain is not known.
  using TakeUser = std::function<void(std::string_view name)>;
  using ListUsers = std::function<bool(const std::string& domain, const TakeUser& take)>;
  // The same with the users that `listUsers` lists, which is not asked when there is no marker.
  static Members withAllUsers(const EmailAddress& alias, const Members& members,
                              const ListUsers& listUsers);

  // True when the cache holds as many entries as the table had rows when they were counted: then an
  // address that is not cached is no alias. Always true for a store made without preload.
  [[nodiscard]] bool isEveryAliasCached() const;

 private:
  void streamEntries(Cache& cache);
  [[nodiscard]] std::optional<Members> expandCached(const EmailAddress& address) const;
  [[nodiscard]] Members expandUncached(const EmailAddress& address, std::uint64_t changes) const;
  // Sends the statement, as every operation does.
  void execute(Database::Query& query) const TSL_REQUIRES(*m_mutex);
  template <class WriteStatement, class Consume>
  void select(WriteStatement writeStatement, Consume consume) const;

  AddressMapDbMySQL& m_mapDb;  // Must outlive every use of the table.
  Mutex* m_mutex;              // The backend's mutex, for `m_mapDb.connection()`.
  std::string m_table;
  mutable Cache m_cache;  // Alias to expanded set, before the all-users step.
  // Rows of the table when they were last counted, 0 before. Written under the mutex, read without.
  std::atomic<std::uint32_t> m_entries{0};
};

}  // namespace Tessel

#endif
