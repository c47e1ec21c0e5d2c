// The registry of tables.
#include "map/AddressMapDbImpl.h"

#include "base/Exception.h"
#include "map/AddressAliasDbImpl.h"
#include "map/AddressMaskDbImpl.h"

namespace Tessel {

namespace {

// The handle that `create` makes, which `tables` holds as `name` from then on. `line` and `detail`
// describe the failure when it has no table.
template <class Handle, class Create>
Handle s_add(std::map<std::string, Handle>& tables, const std::string& name, Create create,
             int line, const char* detail) {
  const Handle table = create();
  if (table.impl() == nullptr) {
    // Deliberate: the context is the constructor's, not the lookup's. Pinned by
    // AddressMapDb.ATableThatCannotBeCreatedIsReportedWithTheConstructorsContext.
    throw Exception("AddressMapDb::AddressMapDb", 4, "AddressMapDb", line).stringParameter(detail);
  }
  tables.insert_or_assign(name, table);
  return tables.find(name)->second;
}

}  // namespace

AddressMapDbImpl::AddressMapDbImpl() = default;

AddressMapDbImpl::~AddressMapDbImpl() = default;

AddressMaskDb AddressMapDbImpl::maskDb(const std::string& name) {
  {
    const SharedHold hold(m_maskDbsMutex);
    const auto found = m_maskDbs.find(name);
    if (found != m_maskDbs.end()) return found->second;
  }
  const ExclusiveHold hold(m_maskDbsMutex);
  // Another thread may have made the table while no lock was held.
  const auto found = m_maskDbs.find(name);
  if (found != m_maskDbs.end()) return found->second;
  return s_add(
      m_maskDbs, name, [&] { return AddressMaskDb(createMaskDbImpl(name)); }, 77,
      "Could not create MaskDb");
}

AddressAliasDb AddressMapDbImpl::aliasDb(const std::string& name) {
  {
    const SharedHold hold(m_aliasDbsMutex);
    const auto found = m_aliasDbs.find(name);
    if (found != m_aliasDbs.end()) return found->second;
  }
  const ExclusiveHold hold(m_aliasDbsMutex);
  // As above.
  const auto found = m_aliasDbs.find(name);
  if (found != m_aliasDbs.end()) return found->second;
  return s_add(
      m_aliasDbs, name, [&] { return AddressAliasDb(createAliasDbImpl(name)); }, 114,
      "Could not create AliasDb");
}

AddressAliasDbImpl::AddressAliasDbImpl() = default;

AddressAliasDbImpl::~AddressAliasDbImpl() = default;

AddressMaskDbImpl::AddressMaskDbImpl() = default;

AddressMaskDbImpl::~AddressMaskDbImpl() = default;

}  // namespace Tessel
