// The fixture of the mask table's tests: a store on the test server and what they look at.
#ifndef TSL_TESTS_MASK_MASKTABLE_H
#define TSL_TESTS_MASK_MASKTABLE_H

#include <memory>
#include <string>

#include "map/AddressMapMySQL.h"
#include "mask/AddressMaskMySQL.h"
#include "support/MapDatabase.h"

namespace Tessel::Testing {

// Each test begins with the empty table `mask` and a store without preload.
class MaskTable : public MapDatabase {
 protected:
  void SetUp() override {
    MapDatabase::SetUp();
    openStore();
  }

  void openStore() { m_store = std::make_unique<AddressMapDbMySQL>(false); }

  // Adds a row outside the code under test. The texts must be fit for SQL.
  static void addMask(const std::string& privateText, const std::string& publicText) {
    sql("insert into ts_address_map.mask values( '" + privateText + "','" + publicText + "' )");
  }

  // "prefix0007" for 7: texts that sort as their numbers.
  static std::string numbered(const std::string& prefix, int i) {
    const std::string number = std::to_string(i);
    return prefix + std::string(4 - number.size(), '0') + number;
  }
  static EmailAddress inner(int i) { return address(numbered("p", i) + "@d.example"); }
  static EmailAddress outer(int i) { return address(numbered("q", i) + "@e.example"); }

  // Adds the pairs of inner(i) and outer(i) for i from `first` to before `end`. Both columns sort
  // alike, so whichever index the server reads, rows come in this order.
  static void addPairs(int first, int end) {
    std::string values;
    for (int i = first; i < end; ++i) {
      values += (values.empty() ? "( '" : ",( '") + inner(i).address() + "','" +
                outer(i).address() + "' )";
    }
    sql("insert into ts_address_map.mask values " + values);
  }

  std::unique_ptr<AddressMaskDbMySQL> open(bool preload, const std::string& name = "") {
    return std::make_unique<AddressMaskDbMySQL>(*m_store, preload, name);
  }

  // A table that has cached `cached` pairs and counted `counted`: the later ones are in SQL only.
  std::unique_ptr<AddressMaskDbMySQL> openPartlyCached(int cached, int counted) {
    if (cached > 0) addPairs(0, cached);
    auto table = open(true);
    addPairs(cached, counted);
    table->exportToFile("/dev/null");
    return table;
  }

  static Rows rows() { return sql("select * from ts_address_map.mask order by private"); }

  // The number of statements that the server received while `call` ran.
  template <class Call>
  static std::size_t statementCount(Call call) {
    return statementsOf(call).size();
  }

  std::unique_ptr<AddressMapDbMySQL> m_store;
};

}  // namespace Tessel::Testing

#endif
