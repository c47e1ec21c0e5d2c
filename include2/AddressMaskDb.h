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

  // The public address shown in place of the private address `address`; null when there is none.
  // Throws Exception when the table cannot be read.
  [[nodiscard]] EmailAddress findPublicAddress(const EmailAddress& address) const;

  // The private address behind the public address `address`; null when there is none. Throws
  // Exception when the table cannot be read.
  [[nodiscard]] EmailAddress findPrivateAddress(const EmailAddress& address) const;

  // Adds the pairs whose private address lies in `domain`, or all pairs for "*", to `entries`
  // (private to public). Throws Exception when the table cannot be read.
  void findByMaskedDomain(const std::string& domain,
                          std::map<EmailAddress, EmailAddress>& entries) const;

  // Writes the table to the file `path`.
  void exportToFile(const std::string& path);

  // Adds the pairs of the file `path` to the table.
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
