// The handle of a store.
#include "AddressMapDb.h"

#include "base/Exception.h"
#include "map/AddressMapDbImpl.h"
#include "map/AddressMapMySQL.h"

namespace Tessel {

namespace {

void s_requireKnownType(AddressMapDb::Type type, const char* context, int line) {
  if (type == AddressMapDb::MySQL) return;
  throw Exception(context, 4, "AddressMapDb", line).stringParameter("Unknown Storage type");
}

AddressMapDbImpl* s_openStore(AddressMapDb::Type type, bool preload) {
  s_requireKnownType(type, "AddressMapDb::AddressMapDb", 15);
  return new AddressMapDbMySQL(preload);
}

}  // namespace

AddressMapDb::AddressMapDb() noexcept = default;

AddressMapDb::AddressMapDb(AddressMapDbImpl* store) : m_wrapper(RefCountedAdopt(store)) {}

// The delegation makes the destructor run when one of the default tables cannot be opened.
AddressMapDb::AddressMapDb(Type type, bool preload) : AddressMapDb(s_openStore(type, preload)) {
  static_cast<void>(maskDb(""));
  static_cast<void>(aliasDb(""));
}

AddressMapDb::AddressMapDb(const AddressMapDb& other) {
  RefCountedImplCopy(m_wrapper, other.m_wrapper);
}

AddressMapDb& AddressMapDb::operator=(const AddressMapDb& other) {
  if (this != &other) RefCountedImplCopy(m_wrapper, other.m_wrapper);
  return *this;
}

AddressMapDb::~AddressMapDb() {
  delete m_wrapper;
}

void AddressMapDb::initialize(Type type, bool clear) {
  s_requireKnownType(type, "AddressMapDb::initialize", 135);
  AddressMapDbMySQL::initialize(clear);
}

AddressAliasDb AddressMapDb::aliasDb(const std::string& name) const {
  return m_wrapper->body()->aliasDb(name);
}

AddressMaskDb AddressMapDb::maskDb(const std::string& name) const {
  return m_wrapper->body()->maskDb(name);
}

}  // namespace Tessel
