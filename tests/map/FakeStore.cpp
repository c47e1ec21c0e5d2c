// Handles over fakes. This source is compiled without access control.
#include "map/FakeStore.h"

namespace Tessel::Testing {

AddressMapDb handleOver(AddressMapDbImpl* store) {
  return AddressMapDb(store);
}

AddressAliasDb handleOver(AddressAliasDbImpl* table) {
  return AddressAliasDb(table);
}

AddressMaskDb handleOver(AddressMaskDbImpl* table) {
  return AddressMaskDb(table);
}

}  // namespace Tessel::Testing
