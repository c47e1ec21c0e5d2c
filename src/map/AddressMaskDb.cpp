// The handle of an address-mask table: copies share it, operations are forwarded to it.
#include "AddressMaskDb.h"

#include "map/AddressMaskDbImpl.h"

namespace Tessel {

AddressMaskDb::AddressMaskDb() = default;

AddressMaskDb::AddressMaskDb(AddressMaskDbImpl* table) : m_wrapper(RefCountedAdopt(table)) {}

AddressMaskDb::AddressMaskDb(const AddressMaskDb& other) {
  RefCountedImplCopy(m_wrapper, other.m_wrapper);
}

AddressMaskDb& AddressMaskDb::operator=(const AddressMaskDb& other) {
  if (this != &other) RefCountedImplCopy(m_wrapper, other.m_wrapper);
  return *this;
}

AddressMaskDb::~AddressMaskDb() {
  delete m_wrapper;
}

EmailAddress AddressMaskDb::findPublicAddress(const EmailAddress& address) const {
  return impl()->findPublicAddress(address);
}

EmailAddress AddressMaskDb::findPrivateAddress(const EmailAddress& address) const {
  return impl()->findPrivateAddress(address);
}

void AddressMaskDb::findByMaskedDomain(const std::string& domain,
                                       std::map<EmailAddress, EmailAddress>& entries) const {
  impl()->findByMaskedDomain(domain, entries);
}

void AddressMaskDb::exportToFile(const std::string& path) {
  impl()->exportToFile(path);
}

void AddressMaskDb::importFromFile(const std::string& path) {
  impl()->importFromFile(path);
}

AddressMaskDbImpl* AddressMaskDb::impl() const {
  return m_wrapper->body();
}

}  // namespace Tessel
