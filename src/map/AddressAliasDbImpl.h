// The abstract alias table, which a storage implements.
#ifndef TSL_MAP_ADDRESSALIASDBIMPL_H
#define TSL_MAP_ADDRESSALIASDBIMPL_H

#include <set>
#include <string>

#include "TslRefcounted.h"
#include "address/EmailAddress.h"
#include "base/Export.h"

namespace Tessel {

// Body of the handle `AddressAliasDb`, whose comments say what the operations do. The order of the
// virtual operations is part of the binary interface. Any thread may call them.
class TSL_EXPORT AddressAliasDbImpl : public RefImpl {
 public:
  AddressAliasDbImpl();
  ~AddressAliasDbImpl() override;

  [[nodiscard]] virtual std::set<EmailAddress> expandAlias(const EmailAddress& address) const = 0;
  virtual void getAliasNames(std::set<EmailAddress>& names) const = 0;
  virtual void exportToFile(const std::string& path) = 0;
  virtual void importFromFile(const std::string& path) = 0;

 protected:
  // Stays empty; expansion answers with a copy of it when there is nothing to return.
  [[nodiscard]] const std::set<EmailAddress>& noAddresses() const { return m_noAddresses; }

 private:
  std::set<EmailAddress> m_noAddresses;
};

}  // namespace Tessel

#endif
