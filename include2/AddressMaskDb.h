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

// Handle of an address-mask table; copies share the table. `AddressMapDb::maskDb` gives it out.
//
// Every operation forwards to the table without looking whether there is one: it must only be
// called on a handle that came from `AddressMapDb::maskDb`, and only while a copy of that
// `AddressMapDb` lives. Any thread may call them; no two threads may assign to, or destroy, one and
// the same handle object.
class TSL_EXPORT AddressMaskDb {
 public:
  // A handle without a table: only copying, assigning and destroying it are allowed.
  AddressMaskDb();
  AddressMaskDb(const AddressMaskDb& other);
  AddressMaskDb& operator=(const AddressMaskDb& other);
  virtual ~AddressMaskDb();

  // The public address shown in place of the private address `address`; null when there is none. In
  // a store that was made without preload, null for whatever is not cached, WITHOUT ASKING THE
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

  // Creates or EMPTIES the file `path`, writes nothing to it, and counts the rows of the table
  // again, so that lookups ask the database from then on in a store without preload, too. For a
  // listing use findByMaskedDomain with "*", or the tool. Throws Exception: when the table cannot
  // be read (the file stays as it was); context "AddressAliasMaskDb::exportToFile", code 4, when
  // the file cannot be opened. A full disk is not reported.
  void exportToFile(const std::string& path);

  // Adds the pairs of the file `path`, one "private:public" a line; where one of the two is taken,
  // that row gets this public address, and no row is added. Lines without a colon are skipped.
  // Addresses go into SQL UNESCAPED: refuse a file with a quote or a backslash in them first. At a
  // line longer than 16383 characters, which is cut and taken so, it stops WITHOUT AN ERROR.
  // Nothing that is cached changes. Throws Exception: context "AddressMaskDb::importFromFile", code
  // 4, when the file cannot be opened; at a text that is no address, and when the database refuses.
  // The pairs of the lines before that stay.
  void importFromFile(const std::string& path);

  // The table itself, without any check. It lives as long as a handle to it.
  [[nodiscard]] AddressMaskDbImpl* impl() const;

 private:
  friend class AddressMapDbImpl;  // Makes the tables.

  // Takes over the caller's reference to `table`, also when it throws std::bad_alloc.
  TSL_HIDDEN explicit AddressMaskDb(AddressMaskDbImpl* table);

  RefCounted<AddressMaskDbImpl>* m_wrapper = nullptr;
};

}  // namespace Tessel

#endif
