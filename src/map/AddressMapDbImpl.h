// The abstract store and its registry of tables.
#ifndef TSL_MAP_ADDRESSMAPDBIMPL_H
#define TSL_MAP_ADDRESSMAPDBIMPL_H

#include <map>
#include <string>

#include <boost/thread/shared_mutex.hpp>

#include "AddressAliasDb.h"
#include "AddressMaskDb.h"
#include "TslRefcounted.h"
#include "base/Export.h"
#include "core/SharedMutexHold.h"

namespace Tessel {

class AddressAliasDbImpl;
class AddressMaskDbImpl;

// Body of the handle `AddressMapDb`: one table object per name and kind. Tables are never removed
// from the registry; they go with the store. The order of the virtual operations and of the fields
// is part of the binary interface. Any thread may call any operation.
//
// Locks: a registry mutex is taken before any other lock of the library, and held exclusively while
// a new table reads its rows.
class TSL_EXPORT AddressMapDbImpl : public virtual RefImpl {
 public:
  AddressMapDbImpl();
  ~AddressMapDbImpl() override;

  // A new table object, whose first reference is the caller's, or null when there can be none. The
  // mutex of its registry is held exclusively.
  virtual AddressMaskDbImpl* createMaskDbImpl(const std::string& name) = 0;
  virtual AddressAliasDbImpl* createAliasDbImpl(const std::string& name) = 0;

  // The handle of the named table, which is made on first use. A hit takes the mutex shared. Throws
  // Exception, context "AddressMapDb::AddressMapDb", code 4, when no table could be created, and
  // what creating it throws; nothing is registered then.
  AddressMaskDb maskDb(const std::string& name);
  AddressAliasDb aliasDb(const std::string& name);

 private:
  // Both maps only grow.
  boost::shared_mutex m_maskDbsMutex;
  std::map<std::string, AddressMaskDb> m_maskDbs TSL_GUARDED_BY(lockIn(m_maskDbsMutex));
  boost::shared_mutex m_aliasDbsMutex;
  std::map<std::string, AddressAliasDb> m_aliasDbs TSL_GUARDED_BY(lockIn(m_aliasDbsMutex));
};

}  // namespace Tessel

#endif
