// The registry of tables.
#include "map/AddressMapDbImpl.h"

#include <memory>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/locks.hpp>

#include "base/Exception.h"
#include "map/AddressAliasDbImpl.h"
#include "map/AddressMaskDbImpl.h"

namespace Tessel {

namespace {

// Finds `name` in `tables`, or puts the table there that `create` makes. `line` and `detail`
// describe the failure when it makes none.
template <class Handle, class Create>
Handle s_findOrCreate(boost::shared_mutex& mutex, std::map<std::string, Handle>& tables,
                      const std::string& name, Create create, int line, const char* detail) {
  {
    const boost::shared_lock<boost::shared_mutex> lock(mutex);
    const auto found = tables.find(name);
    if (found != tables.end()) return found->second;
  }
  const boost::unique_lock<boost::shared_mutex> lock(mutex);
  // Another thread may have made the table while no lock was held.
  const auto found = tables.find(name);
  if (found != tables.end()) return found->second;

  auto* const table = create(name);
  if (table == nullptr) {
    // Deliberate: the context is the constructor's, not the lookup's. Pinned by
    // AddressMapDb.ATableThatCannotBeCreatedIsReportedWithTheConstructorsContext.
    throw Exception("AddressMapDb::AddressMapDb", 4, "AddressMapDb", line).stringParameter(detail);
  }
  tables.insert_or_assign(name, Handle(table));
  return tables.find(name)->second;
}

}  // namespace

AddressMapDbImpl::AddressMapDbImpl() = default;

AddressMapDbImpl::~AddressMapDbImpl() = default;

AddressMaskDb AddressMapDbImpl::maskDb(const std::string& name) {
  return s_findOrCreate(
      m_maskDbsMutex, m_maskDbs, name,
      [this](const std::string& table) { return createMaskDbImpl(table); }, 77,
      "Could not create MaskDb");
}

AddressAliasDb AddressMapDbImpl::aliasDb(const std::string& name) {
  return s_findOrCreate(
      m_aliasDbsMutex, m_aliasDbs, name,
      [this](const std::string& table) { return createAliasDbImpl(table); }, 114,
      "Could not create AliasDb");
}

AddressAliasDbImpl::AddressAliasDbImpl() = default;

AddressAliasDbImpl::~AddressAliasDbImpl() = default;

AddressMaskDbImpl::AddressMaskDbImpl() = default;

AddressMaskDbImpl::~AddressMaskDbImpl() = default;

}  // namespace Tessel
