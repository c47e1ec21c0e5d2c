// Stores and dropped tables behind the C interface.
#include "capi/CallFrame.h"

#include "database/Query.h"
#include "map/AddressMapMySQL.h"

namespace Tessel::CInterface {

tsl_address_map createStore() {
  return answer(tsl_address_map{}, [] {
    return reinterpret_cast<tsl_address_map>(new AddressMapDb(AddressMapDb::MySQL, false));
  });
}

void destroyStore(tsl_address_map map) {
  delete reinterpret_cast<AddressMapDb*>(map);
}

void dropTable(const std::string& table) {
  AddressMapDbMySQL backend(false);
  Database::Query query(backend.connection(), nullptr, true);
  query << "drop table " << table << ";";
  query.execute();
}

}  // namespace Tessel::CInterface
