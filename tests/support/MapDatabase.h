// A fresh address-map database on the shared private server, for each test.
#ifndef TSL_TESTS_SUPPORT_MAPDATABASE_H
#define TSL_TESTS_SUPPORT_MAPDATABASE_H

#include <chrono>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "address/EmailAddress.h"
#include "local/ServerProcess.h"
#include "support/GeneralLog.h"
#include "support/SocketRelay.h"
#include "support/TestServer.h"

namespace Tessel::Testing {

// A relay before the shared server. Stores that are opened while it lives go through it.
class Relay {
 public:
  // The statements sent so far, byte by byte, without what belongs to the sessions.
  [[nodiscard]] std::vector<std::string> statements() const {
    std::vector<std::string> sent = m_relay.statements();
    std::erase_if(sent, &GeneralLog::isOfTheSession);
    return sent;
  }
  // The statements that `call` sends when the connection breaks before the first answer.
  template <class Call>
  std::vector<std::string> sentWithoutAnswer(Call call) {
    const std::size_t before = statements().size();
    m_relay.cutAfter(SocketRelay::Direction::ToClient, 0);
    call();
    EXPECT_TRUE(m_relay.endCut()) << "nothing was asked";
    std::vector<std::string> sent = statements();
    sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(before));
    return sent;
  }
  SocketRelay& relay() { return m_relay; }

 private:
  SocketRelay m_relay{TestServer::shared().directory() + "/relay.sock",
                      TestServer::shared().socketPath()};
  TestServer::OptionFile m_options{
      TestServer::shared(), "[client]\nsocket=" + m_relay.path() + "\nuser=" + callerName() + "\n"};
};

// True when `call`, made by another thread, comes back while this thread holds `lock`. Waits for
// that, but not for ever.
template <class Lock, class Call>
bool endsInSpiteOf(Lock lock, Call call) {
  constexpr std::chrono::seconds patience(10);
  const std::future<void> done = std::async(std::launch::async, call);
  const bool ended = done.wait_for(patience) == std::future_status::ready;
  lock.unlock();
  return ended;
}

// Starts each test with empty base tables.
class MapDatabase : public testing::Test {
 protected:
  using Rows = std::vector<std::vector<std::string>>;

  void SetUp() override { prepare(); }

  // Recreates the database.
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

  // The statements that `call` sends over connections of its own, byte by byte as they are sent.
  template <class Call>
  static std::vector<std::string> sentBy(Call call) {
    const Relay relay;
    call();
    return relay.statements();
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
