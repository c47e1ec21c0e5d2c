// One row of an alias table.
#ifndef TSL_ALIAS_ADDRESSALIASROW_H
#define TSL_ALIAS_ADDRESSALIASROW_H

#include <map>
#include <set>

#include "TslRefcounted.h"
#include "address/EmailAddress.h"
#include "database/RowImpl.h"

namespace Tessel {

// An alias and its members, read from the columns `name` and `members`; later columns are not
// looked at. A fresh row has a null alias and no members. One thread at a time.
class AddressAliasRow : public Database::RowImpl {
 public:
  AddressAliasRow();
  ~AddressAliasRow() override;

  // Reads the current row of `result`. False, with one log message (0x300002b) and the row
  // unchanged, when a column is empty. Throws Exception when a text does not parse.
  bool parse(void* connection, void* result, void* row) override;

  [[nodiscard]] const EmailAddress& alias() const { return m_alias; }
  [[nodiscard]] const std::set<EmailAddress>& members() const { return m_members; }

 private:
  EmailAddress m_alias;
  std::set<EmailAddress> m_members;
};

// Functor over rows: puts each alias with its members into a map. The last row of an alias wins.
class AdapterAliasRowToEntryContainer {
 public:
  // `entries` must outlive the functor.
  explicit AdapterAliasRowToEntryContainer(std::map<EmailAddress, std::set<EmailAddress>>& entries)
      : m_entries(entries) {}

  void operator()(const Ref<Database::RowImpl>& row) const {
    const auto& aliasRow = static_cast<const AddressAliasRow&>(**row);
    m_entries[aliasRow.alias()] = aliasRow.members();
  }

 private:
  std::map<EmailAddress, std::set<EmailAddress>>& m_entries;
};

}  // namespace Tessel

#endif
