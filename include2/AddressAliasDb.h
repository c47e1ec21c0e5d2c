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

// Handle of an alias table; copies share the table. `AddressMapDb::aliasDb` returns it.
//
// Every operation forwards to the table without checking whether there is one: call it only on a
// handle that came from `AddressMapDb::aliasDb`, and only while a copy of that `AddressMapDb`
// lives. Any thread may call them; no two threads may assign to, or destroy, one and
// the same handle object.
class TSL_EXPORT AddressAliasDb {
 public:
  // A handle without a table: only copying, assigning and destroying it are allowed.
  AddressAliasDb();
  AddressAliasDb(const AddressAliasDb& other);
  AddressAliasDb& operator=(const AddressAliasDb& other);
  virtual ~AddressAliasDb();

  // The final addresses that mail for `address` reaches: members, expanded recursively, alias loops
  // broken, the all-users marker replaced by the mailboxes of its domain. Empty when `address` is
  // no alias and when it expands to nothing; in a store created without preload also for everything
  // that is not cached, WITHOUT ASKING THE DATABASE. Throws Exception, context "expandAlias ", when
  // the table cannot be read.
  [[nodiscard]] std::set<EmailAddress> expandAlias(const EmailAddress& address) const;

  // Adds the addresses of all aliases of the table to `names`. Throws Exception when the table
  // cannot be read.
  void getAliasNames(std::set<EmailAddress>& names) const;

  // Creates or EMPTIES the file `path`, writes nothing to it, and recounts the rows of the table.
  // From then on lookups query the database in a store without preload, too. For a listing use the
  // C call tsl_address_alias_find_by_domain() with "*", or the tool. Throws Exception: when the
  // table cannot be read (the file stays unchanged); context
  // "AddressAliasDb::exportToFile", code 4, when the file cannot be opened. A full disk is not
  // reported.
  void exportToFile(const std::string& path);

  // Adds the aliases of the file `path`, one "alias:member,member" a line, or replaces the members
  // of existing ones; lines without a colon are skipped. Members go into SQL UNESCAPED: refuse a
  // file with a quote or a backslash in them first. A line longer than 16383 characters is cut and
  // imported so, and the import stops there WITHOUT AN ERROR. Nothing that is cached changes.
  // Throws Exception: context "AddressAliasDb::importFromFile", code 4, when the file cannot be
  // opened; at a text that is no address, and when the database refuses. The aliases of the lines
  // before that stay.
  void importFromFile(const std::string& path);

  // The table itself, without any check. It lives as long as a handle to it.
  [[nodiscard]] AddressAliasDbImpl* impl() const;

 private:
  friend class AddressMapDbImpl;  // Creates the tables.

  // Takes over the caller's reference to `table`, also when it throws std::bad_alloc.
  TSL_HIDDEN explicit AddressAliasDb(AddressAliasDbImpl* table);

  RefCounted<AddressAliasDbImpl>* m_wrapper = nullptr;
};

}  // namespace Tessel

#endif
