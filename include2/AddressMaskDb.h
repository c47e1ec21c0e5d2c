// The handle of one address-mask table.
#ifndef TSL_ADDRESSMASKDB_H
#define TSL_ADDRESSMASKDB_H

#include <map>
#include <string>

#include "TslRefcounted.h"
#include "address/EmailAddress.h"
#include "base/Export.h"

namespace Tessel {

class AddressMaskDbImpl;

// Handle of an address-mask table; copies share the table. `AddressMapDb::maskDb` returns it.
//
// Every operation forwards to the table without checking whether there is one: call it only on a
// handle that came from `AddressMapDb::maskDb`, and only while a copy of that `AddressMapDb`
// lives. Any thread may call them; no two threads may assign to, or destroy, one and
// the same handle object.
class TSL_EXPORT AddressMaskDb {
 public:
  // A handle without a table: only copying, assigning and destroying it are allowed.
  AddressMaskDb();
  AddressMaskDb(const AddressMaskDb& other);
  AddressMaskDb& operator=(const AddressMaskDb& other);
  virtual ~AddressMaskDb();

  // The public address shown in place of the private address `address`; null when there is none. In
  // a store created without preload also null for everything that is not cached, WITHOUT ASKING THE
  // DATABASE, and rows for whole domains are not applied. Throws Exception when the table cannot be
  // read.
  [[nodiscard]] EmailAddress findPublicAddress(const EmailAddress& address) const;

  // The private address behind the public address `address`; null when there is none, and without
  // preload as above. Throws Exception when the table cannot be read.
  [[nodiscard]] EmailAddress findPrivateAddress(const EmailAddress& address) const;

  // Adds the pairs whose private address lies in `domain`, or all pairs for "*", to `entries`
  // (private to public). Throws Exception when the table cannot be read.
  void findByMaskedDomain(const std::string& domain,
                          std::map<EmailAddress, EmailAddress>& entries) const;

  // Creates or EMPTIES the file `path`, writes nothing to it, and recounts the rows of the table.
  // From then on lookups query the database in a store without preload, too. For a listing use
  // findByMaskedDomain with "*", or the tool. Throws Exception: when the table cannot be read (the
  // file stays unchanged); context "AddressAliasMaskDb::exportToFile", code 4, when
  // the file cannot be opened. A full disk is not reported.
  void exportToFile(const std::string& path);

  // Adds the pairs of the file `path`, one "private:public" a line; where one of the two is taken,
  // that row gets this public address, and no row is added. Lines without a colon are skipped.
  // Addresses go into SQL UNESCAPED: refuse a file with a quote or a backslash in them first. A
  // line longer than 16383 characters is cut and imported so, and the import stops there WITHOUT AN
  // ERROR. Nothing that is cached changes. Throws Exception: context
  // "AddressMaskDb::importFromFile", code 4, when the file cannot be opened; at a text that is no
  // address, and when the database refuses. The pairs of the lines before that stay.
  void importFromFile(const std::string& path);

  // The table itself, without any check. It lives as long as a handle to it.
  [[nodiscard]] AddressMaskDbImpl* impl() const;

 private:
  friend class AddressMapDbImpl;  // Creates the tables.

  // Takes over the caller's reference to `table`, also when it throws std::bad_alloc.
  TSL_HIDDEN explicit AddressMaskDb(AddressMaskDbImpl* table);

  RefCounted<AddressMaskDbImpl>* m_wrapper = nullptr;
};

}  // namespace Tessel

#endif
