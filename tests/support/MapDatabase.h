// A fresh address-map database on the shared private server, for each test.
#ifndef TSL_TESTS_SUPPORT_MAPDATABASE_H
#define TSL_TESTS_SUPPORT_MAPDATABASE_H

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "address/EmailAddress.h"
#include "support/GeneralLog.h"
#include "support/TestServer.h"

namespace Tessel::Testing {

// Starts each test with empty base tables.
class MapDatabase : public testing::Test {
 protected:
  using Rows = std::vector<std::vector<std::string>>;

  void SetUp() override { prepare(); }

  // Makes the database anew.
  static void prepare() {
    sql("drop database if exists ts_address_map");
    AddressMapDb::initialize(AddressMapDb::MySQL, false);
  }

  // Runs one statement outside the code under test and returns its rows.
  static Rows sql(const std::string& statement) { return TestServer::shared().sql(statement); }

  // Has every commit from now on survive a kill of the server.
  static void makeDurable() { sql("set global innodb_flush_log_at_trx_commit = 1"); }

  // Adds a row to `table` of the address-map database.
  static void addAlias(const std::string& name, const std::string& members,
                       const std::string& table = "alias") {
    sql("insert into ts_address_map." + table + " ( name, members ) values( '" + name + "','" +
        members + "' )");
  }

  // The statements that the server received while `call` ran. The server cuts the final semicolon
  // of a statement off before it logs it.
  template <class Call>
  static std::vector<std::string> statementsOf(Call call) {
    GeneralLog log(TestServer::shared());
    log.mark();
    call();
    return log.statementsSince();
  }

  static EmailAddress address(const std::string& text) {
    return EmailAddress::rfc5321Parse(text, true);
  }

  static std::set<EmailAddress> addresses(const std::string& text) {
    return EmailAddress::rfc5322ParseSet(text, true, false);
  }
};

}  // namespace Tessel::Testing

#endif
