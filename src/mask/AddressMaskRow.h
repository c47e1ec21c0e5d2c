// One row of an address-mask table.
#ifndef TSL_MASK_ADDRESSMASKROW_H
#define TSL_MASK_ADDRESSMASKROW_H

#include <map>
#include <string>

#include "TslRefcounted.h"
#include "address/EmailAddress.h"
#include "database/RowImpl.h"

namespace Tessel {

namespace Database {

// A private address and the public one shown in its place, read from the columns `private` and
// `public`. Both are null in a fresh row. One thread at a time.
class AddressMaskRow : public RowImpl {
 public:
  AddressMaskRow();
  ~AddressMaskRow() override;

  // Reads the current row of `result`. False, with one log message (0x300002a) and the row
  // unchanged, when a column is empty. Throws Exception when a text does not parse.
  bool parse(void* connection, void* result, void* row) override;

  [[nodiscard]] const EmailAddress& privateAddress() const { return m_private; }
  [[nodiscard]] const EmailAddress& publicAddress() const { return m_public; }

 private:
  EmailAddress m_private;
  EmailAddress m_public;
};

}  // namespace Database

// Functor over rows: puts each pair into a map from private to public address. A later row wins.
class AdapterMaskRowToEntryContainer {
 public:
  // `entries` must outlive the functor.
  explicit AdapterMaskRowToEntryContainer(std::map<EmailAddress, EmailAddress>& entries)
      : m_entries(entries) {}

  void operator()(const Ref<Database::RowImpl>& row) const {
    const auto& maskRow = static_cast<const Database::AddressMaskRow&>(**row);
    m_entries[maskRow.privateAddress()] = maskRow.publicAddress();
  }

 private:
  std::map<EmailAddress, EmailAddress>& m_entries;
};

// Functor over rows: puts the domains of each pair into a map from private to public domain. A
// later row wins.
class AdapterMaskRowToWildCardContainer {
 public:
  // `domains` must outlive the functor.
  explicit AdapterMaskRowToWildCardContainer(std::map<std::string, std::string>& domains)
      : m_domains(domains) {}

  void operator()(const Ref<Database::RowImpl>& row) const {
    const auto& maskRow = static_cast<const Database::AddressMaskRow&>(**row);
    m_domains[maskRow.privateAddress().domain()] = maskRow.publicAddress().domain();
  }

 private:
  std::map<std::string, std::string>& m_domains;
};

}  // namespace Tessel

#endif
