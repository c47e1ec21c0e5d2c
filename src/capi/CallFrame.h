// What the functions of the C interface have in common: where C values become objects of the
// library, and where its failures become return values.
#ifndef TSL_CAPI_CALLFRAME_H
#define TSL_CAPI_CALLFRAME_H

#include <cstdlib>
#include <new>
#include <string>

#include "AddressMapDb.h"
#include "base/Exception.h"
#include "tsl_address_map.h"

namespace Tessel::CInterface {

// What functions that return an int say.
constexpr int s_done = 0;
constexpr int s_failed = -1;

inline const AddressMapDb& storeOf(tsl_address_map map) {
  return *reinterpret_cast<const AddressMapDb*>(map);
}

// A store without preload, or null when it cannot be opened.
tsl_address_map createStore();
// Ends a store. Null is ignored.
void destroyStore(tsl_address_map map);

// The name of a table as the class layer takes it.
inline std::string tableName(const char* table) {
  return table != nullptr ? table : "";
}

// The result of `operation`, or `failed` when it throws the library's exception. Everything else
// passes: a lack of memory must not look like "not there".
template <class Result, class Operation>
Result answer(Result failed, Operation operation) {
  try {
    return operation();
  } catch (const Exception&) {
    return failed;
  }
}

// Runs `operation`: s_done, or s_failed when it throws the library's exception.
template <class Operation>
int run(Operation operation) {
  return answer(s_failed, [&] {
    operation();
    return s_done;
  });
}

// A copy of `address` for the caller. Throws std::bad_alloc, never returns null: in a record null
// would look like the end of its list.
inline tsl_emailaddress newAddress(const EmailAddress& address) {
  tsl_emailaddress copy = tsl_emailaddress_create(address);
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

// Zeroed memory for `count` records and the one that ends the list; the caller frees it.
template <class Record>
Record* newList(std::size_t count) {
  auto* list = static_cast<Record*>(std::calloc(count + 1, sizeof(Record)));
  if (list == nullptr) throw std::bad_alloc();
  return list;
}

// Drops the table `table`, whose name goes into the SQL as it is, over a connection of its own.
void dropTable(const std::string& table);

}  // namespace Tessel::CInterface

#endif
