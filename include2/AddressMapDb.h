// The entry object of the library: selects the storage and gives access to the tables.
#ifndef TSL_ADDRESSMAPDB_H
#define TSL_ADDRESSMAPDB_H

#include <string>

#include "AddressAliasDb.h"
#include "AddressMaskDb.h"
#include "TslRefcounted.h"
#include "base/Export.h"

namespace Tessel {

class AddressMapDbImpl;

// Handle of a store; copies share the store, which lives as long as one of them. A store has one
// database connection and keeps every table that was opened as long as it lives. Tables refer
// back to their store: keep a copy of the `AddressMapDb` for as long as its tables are used.
//
// Threads: `aliasDb` and `maskDb` may be called from any threads on one object. No two threads may
// assign to, or destroy, one and the same handle object.
class TSL_EXPORT AddressMapDb {
 public:
  // Storage types. Every other value is refused.
  enum Type : int { MySQL = 1 };

  // A handle without a store: only copying, assigning and destroying it are allowed.
  AddressMapDb() noexcept;
  // Opens the store and its default mask table and alias table. With `preload` true each table
  // reads its rows when it is opened, and can then look up what is not cached. With `preload` false
  // opening queries nothing, and lookups answer from the cache only. Throws Exception: context
  // "AddressMapDb::AddressMapDb", code 4, for an unknown `type`; what the database reports
  // otherwise.
  AddressMapDb(Type type, bool preload);
  AddressMapDb(const AddressMapDb& other);
  AddressMapDb& operator=(const AddressMapDb& other);
  ~AddressMapDb();

  // Prepares the database; call it once, before any store is created. Creates `ts_address_map` and
  // its base tables `alias` and `mask` where they are missing, upgrades an old `alias` table, and
  // empties both when `clear` is true.
  //
  // Deliberate: after any Exception it DROPS THE WHOLE DATABASE and creates an empty one, without
  // reporting it. Check first that the database can be read; the tool's `init` does. Throws
  // Exception: context "AddressMapDb::initialize", code 4, for an unknown `type`; when the server
  // cannot be reached; when dropping the database or creating it again fails.
  static void initialize(Type type, bool clear);

  // The table `alias_NAME`, or `alias` for the empty name. All callers with the same name get the
  // same table. The name is used as is; letter case matters. Throws what opening the table throws;
  // the next call tries again.
  [[nodiscard]] AddressAliasDb aliasDb(const std::string& name) const;

  // As `aliasDb`, for the table `mask_NAME` or `mask`.
  [[nodiscard]] AddressMaskDb maskDb(const std::string& name) const;

 private:
  // Takes over the caller's reference to `store`, also when it throws std::bad_alloc. Opens no
  // table.
  TSL_HIDDEN explicit AddressMapDb(AddressMapDbImpl* store);

  RefCounted<AddressMapDbImpl>* m_wrapper = nullptr;
};

}  // namespace Tessel

#endif
