// The fixture of the alias table's tests: a store on the test server and its table `alias`.
#ifndef TSL_TESTS_ALIAS_ALIASTABLE_H
#define TSL_TESTS_ALIAS_ALIASTABLE_H

#include <memory>

#include "alias/AddressAliasDbMySQL.h"
#include "map/AddressMapMySQL.h"
#include "support/MapDatabase.h"

namespace Tessel::Testing {

// Each test begins with the empty table `alias`, in a store without preload.
class AliasTable : public MapDatabase {
 protected:
  void SetUp() override {
    MapDatabase::SetUp();
    openTable();
  }

  void openTable() {
    m_store = std::make_unique<AddressMapDbMySQL>(false);
    m_table = std::make_unique<AddressAliasDbMySQL>(*m_store, false, "");
  }

  static Rows rows() {
    return sql("select name, members, all_users from ts_address_map.alias order by name");
  }

  std::unique_ptr<AddressMapDbMySQL> m_store;
  std::unique_ptr<AddressAliasDbMySQL> m_table;
};

}  // namespace Tessel::Testing

#endif
