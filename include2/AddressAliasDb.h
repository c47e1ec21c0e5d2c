// The handle of one alias table.
#ifndef TSL_ADDRESSALIASDB_H
#define TSL_ADDRESSALIASDB_H

#include <set>
#include <string>

#include "TslRefcounted.h"
#include "address/EmailAddress.h"
#include "base/Export.h"

namespace Tessel {

class AddressAliasDbImpl;

// Handle of an alias table; copies share the table. `AddressMapDb::aliasDb` gives it out.
//
// Every operation forwards to the table without looking whether there is one: it must only be
// called on a handle that came from `AddressMapDb::aliasDb`, and only while a copy of that
// `AddressMapDb` lives. Any thread may call them; no two threads may assign to, or destroy, one and
// the same handle object.
class TSL_EXPORT AddressAliasDb {
 public:
  // A handle without a table: only copying, assigning and destroying it are allowed.
  AddressAliasDb();
  AddressAliasDb(const AddressAliasDb& other);
  AddressAliasDb& operator=(const AddressAliasDb& other);
  virtual ~AddressAliasDb();

  // The final addresses that mail for `address` reaches: members, expanded recursively, cycles
  // broken, the all-users marker replaced by the mailboxes of its domain. Empty when `address` is
  // no alias, when it expands to nothing, and for whatever is not cached in a store that was made
  // without preload. Throws Exception, context "expandAlias ", when the table cannot be read.
  [[nodiscard]] std::set<EmailAddress> expandAlias(const EmailAddress& address) const;

  // Adds the addresses of all aliases of the table to `names`. Throws Exception when the table
  // cannot be read.
  void getAliasNames(std::set<EmailAddress>& names) const;

  // Writes the table to the file `path`.
  void exportToFile(const std::string& path);

  // Adds the aliases of the file `path` to the table.
  void importFromFile(const std::string& path);

  // The table itself, without any check. It lives as long as a handle to it.
  [[nodiscard]] AddressAliasDbImpl* impl() const;

 private:
  friend class AddressMapDbImpl;  // Makes the tables.

  // Takes over the caller's reference to `table`, also when it throws std::bad_alloc.
  TSL_HIDDEN explicit AddressAliasDb(AddressAliasDbImpl* table);

  RefCounted<AddressAliasDbImpl>* m_wrapper = nullptr;
};

}  // namespace Tessel

#endif
