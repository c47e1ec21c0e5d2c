// The handle of an alias table: copies share it, operations are forwarded to it.
#include "AddressAliasDb.h"

#include "map/AddressAliasDbImpl.h"

namespace Tessel {

AddressAliasDb::AddressAliasDb() = default;

AddressAliasDb::AddressAliasDb(AddressAliasDbImpl* table) : m_wrapper(RefCountedAdopt(table)) {}

AddressAliasDb::AddressAliasDb(const AddressAliasDb& other) {
  RefCountedImplCopy(m_wrapper, other.m_wrapper);
}

AddressAliasDb& AddressAliasDb::operator=(const AddressAliasDb& other) {
  if (this != &other) RefCountedImplCopy(m_wrapper, other.m_wrapper);
  return *this;
}

AddressAliasDb::~AddressAliasDb() {
  delete m_wrapper;
}

std::set<EmailAddress> AddressAliasDb::expandAlias(const EmailAddress& address) const {
  return impl()->expandAlias(address);
}

void AddressAliasDb::getAliasNames(std::set<EmailAddress>& names) const {
  impl()->getAliasNames(names);
}

void AddressAliasDb::exportToFile(const std::string& path) {
  impl()->exportToFile(path);
}

void AddressAliasDb::importFromFile(const std::string& path) {
  impl()->importFromFile(path);
}

AddressAliasDbImpl* AddressAliasDb::impl() const {
  return m_wrapper->body();
}

}  // namespace Tessel
