// The store over MariaDB/MySQL: its connection, its tables and its schema.
#ifndef TSL_MAP_ADDRESSMAPMYSQL_H
#define TSL_MAP_ADDRESSMAPMYSQL_H

#include <string>

#include "base/Export.h"
#include "base/Mutex.h"
#include "database/Connection.h"
#include "map/AddressMapDbImpl.h"

namespace Tessel {

// Base words of the table names: a table is named by its base word, or by its base word, "_" and
// the store name.
extern const std::string s_mask;
extern const std::string s_alias;

// Creates the alias table `table` in the selected database; an existing one stays as it is. Throws
// Exception, context "Address Alias Creation", code 4, with the cause. Takes no lock: the caller
// sees to it that no other thread uses `connection`.
TSL_EXPORT void createAliasTable(Database::Connection& connection, const std::string& table);

// Creates the mask table `table`, which must not exist, with its unique indexes `private` and
// `public`. Throws Exception, context "Address Mask Creation", code 4, with the cause. Takes no
// lock.
TSL_EXPORT void createMaskTable(Database::Connection& connection, const std::string& table);

// The one store implementation. Its tables share its connection and use it only while they hold
// `mutex()`. They keep a plain reference to it: it must outlive their use. The order of the fields
// is part of the binary interface.
class TSL_EXPORT AddressMapDbMySQL : public AddressMapDbImpl {
 public:
  // Connects to the database `ts_address_map` on the default server; runs no SQL of its own.
  // `preload` is handed to every table. Throws Exception when the server or the database cannot be
  // reached.
  explicit AddressMapDbMySQL(bool preload);
  ~AddressMapDbMySQL() override;

  // New tables; never null. Throw what the table's preload throws.
  AddressMaskDbImpl* createMaskDbImpl(const std::string& name) override;
  AddressAliasDbImpl* createAliasDbImpl(const std::string& name) override;

  // The store's connection. Requires: `mutex()` held while it is used.
  Database::Connection& connection() { return m_connection; }
  // The mutex that serialises all use of the connection. It is recursive for its holder.
  Mutex& mutex() { return m_mutex; }

  // See `AddressMapDb::initialize`. Works on a connection of its own, takes no lock, and must not
  // run at the same time as itself or as a store in use.
  static void initialize(bool clear);

 private:
  Mutex m_mutex;
  std::string m_databaseName;
  Database::Connection m_connection TSL_GUARDED_BY(m_mutex);
  bool m_preload;
};

}  // namespace Tessel

#endif
