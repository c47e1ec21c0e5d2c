// One address-mask table in MariaDB/MySQL.
#ifndef TSL_MASK_ADDRESSMASKMYSQL_H
#define TSL_MASK_ADDRESSMASKMYSQL_H

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "address/EmailAddress.h"
#include "base/Mutex.h"
#include "core/LRUCache.h"
#include "map/AddressMaskDbImpl.h"

namespace Tessel {

namespace Database {
class Query;
}

class AddressMapDbMySQL;

// An address-mask table: pairs of a private address and the public one shown in its place, with a
// cache in front. A pair with a "*" in either address is a wildcard row and maps a whole private
// domain to a public one.
//
// Lookups ask the cache, then the table unless the cache holds every plain row, then the wildcard
// rows. Writes touch none of the three but the table.
//
// Any thread may call any operation. Each statement, with the processing of its rows, holds the
// mutex of the backend. Failures of the database and of address parsing pass as Exception. The
// order of the virtual operations and of the fields is part of the binary interface.
class AddressMaskDbMySQL : public AddressMaskDbImpl {
 public:
  using Entries = std::map<EmailAddress, EmailAddress>;
  using Cache = LRUCache<EmailAddress, EmailAddress>;

  // The table `mask` for the empty `name`, otherwise `mask_NAME`. With `preload` true the rows are
  // read: up to 1024 plain ones into the cache, all wildcard ones into the wildcard set. `mapDb`
  // must outlive every use of the table.
  AddressMaskDbMySQL(AddressMapDbMySQL& mapDb, bool preload, const std::string& name);
  ~AddressMaskDbMySQL() override;

  // See `AddressMaskDb`.
  [[nodiscard]] EmailAddress findPublicAddress(const EmailAddress& address) const override;
  [[nodiscard]] EmailAddress findPrivateAddress(const EmailAddress& address) const override;
  void findByMaskedDomain(const std::string& domain, Entries& entries) const override;
  void exportToFile(const std::string& path) override;
  void importFromFile(const std::string& path) override;

  // The public address of the row of a private one, or null. Asks the table only.
  [[nodiscard]] virtual EmailAddress queryPublicAddress(const EmailAddress& privateAddress) const;
  // The private address of the row of a public one, or null. Asks the table only.
  [[nodiscard]] virtual EmailAddress queryPrivateAddress(const EmailAddress& publicAddress) const;

  // Adds a pair. Deliberate: the texts go into the SQL unescaped, and because both columns are
  // unique, a pair whose private or public address is taken changes that row's public address.
  void queryAdd(const EmailAddress& privateAddress, const EmailAddress& publicAddress);

  // Deletes the row of exactly this pair, if there is one. Deliberate: unescaped.
  void queryDelete(const EmailAddress& privateAddress, const EmailAddress& publicAddress);

  // Deletes the rows whose private address ends in "@" and `domain`. Deliberate: `domain` goes into
  // the SQL as it is, and "%" and "_" in it match anything.
  void queryDelete(const std::string& domain);

  // Adds the plain rows to `cache` until it holds 1024, and counts them all. Throws Exception,
  // context "queryEntries ", with the cause.
  void queryEntries(Cache& cache);

  // Adds the wildcard rows to the wildcard set. Requires: no lookup runs.
  void queryWildCards();

 private:
  template <class Look, class LookBehind>
  [[nodiscard]] EmailAddress lookInCache(Look look, LookBehind lookBehind) const;
  [[nodiscard]] EmailAddress findPublic(const EmailAddress& address) const;
  [[nodiscard]] EmailAddress findPrivate(const EmailAddress& address) const;
  // Behind the cache: in the table, unless `complete` says that the cache holds all of it, and
  // among the wildcard rows.
  [[nodiscard]] EmailAddress findPublicBehind(const EmailAddress& address, bool complete) const;
  [[nodiscard]] EmailAddress findPrivateBehind(const EmailAddress& address, bool complete) const;
  // Sends the statement, as every operation does.
  void execute(Database::Query& query) const TSL_REQUIRES(*m_mutex);
  template <class WriteStatement, class Consume>
  void select(WriteStatement writeStatement, Consume consume) const;

  AddressMapDbMySQL& m_mapDb;  // Must outlive every use of the table.
  Mutex* m_mutex;              // The backend's mutex, for `m_mapDb.connection()`.
  std::string m_table;
  mutable Cache m_cache;
  // Plain rows when they were last counted, 0 before. Written under the mutex, read without.
  std::atomic<std::uint32_t> m_entries{0};
  // Private to public domain, compared byte by byte. Written only by construction.
  std::map<std::string, std::string> m_wildCards;
};

}  // namespace Tessel

#endif
