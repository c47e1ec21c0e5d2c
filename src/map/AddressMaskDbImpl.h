// The abstract address-mask table, which a storage implements.
#ifndef TSL_MAP_ADDRESSMASKDBIMPL_H
#define TSL_MAP_ADDRESSMASKDBIMPL_H

#include <map>
#include <string>

#include "TslRefcounted.h"
#include "address/EmailAddress.h"
#include "base/Export.h"

namespace Tessel {

// Body of the handle `AddressMaskDb`, whose comments say what the operations do. The order of the
// virtual operations is part of the binary interface. Any thread may call them.
class TSL_EXPORT AddressMaskDbImpl : public RefImpl {
 public:
  AddressMaskDbImpl();
  ~AddressMaskDbImpl() override;

  [[nodiscard]] virtual EmailAddress findPublicAddress(const EmailAddress& address) const = 0;
  [[nodiscard]] virtual EmailAddress findPrivateAddress(const EmailAddress& address) const = 0;
  virtual void findByMaskedDomain(const std::string& domain,
                                  std::map<EmailAddress, EmailAddress>& entries) const = 0;
  virtual void exportToFile(const std::string& path) = 0;
  virtual void importFromFile(const std::string& path) = 0;

 protected:
  // Stays null; lookups answer with a copy of it when nothing matches.
  [[nodiscard]] const EmailAddress& noAddress() const { return m_noAddress; }

 private:
  EmailAddress m_noAddress;
};

}  // namespace Tessel

#endif
