// What the tests of the database library share: an empty database, and statements in one line.
#ifndef TSL_TESTS_DATABASE_DATABASETEST_H
#define TSL_TESTS_DATABASE_DATABASETEST_H

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "database/Connection.h"
#include "database/Error.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "local/ServerProcess.h"
#include "support/GeneralLog.h"
#include "support/SocketRelay.h"
#include "support/TestServer.h"

namespace Tessel::Database {

using Rows = Testing::TestServer::Rows;

// Takes all rows as texts.
class TextParser : public AllRowParser {
 public:
  void parse(void* connection, void* result) override {
    ++calls;
    for (std::int64_t i = 0; i < db_result_row_num(result); ++i) {
      void* const row = db_result_fetch_row(result, i);
      auto& texts = rows.emplace_back();
      for (unsigned int column = 0; column < db_result_column_num(result); ++column) {
        texts.emplace_back(db_result_get_value(connection, result, row, column),
                           db_result_field_length(result, column));
      }
    }
  }

  Rows rows;
  int calls = 0;
};

// Runs `text` and returns the rows of its result.
inline Rows run(Connection& connection, const std::string& text, bool mayRepeat = true) {
  TextParser parser;
  Query query(connection, &parser, mayRepeat);
  query << text;
  query.execute();
  return parser.rows;
}

// The one value that `text` selects.
inline std::string value(Connection& connection, const std::string& text, bool mayRepeat = true) {
  return run(connection, text, mayRepeat).at(0).at(0);
}

// The `Error` that `call` throws, or nothing with a test failure.
template <class Call>
std::optional<Error> caughtError(Call call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "no Error was thrown";
  return std::nullopt;
}

// Exit status of a child process that runs `call`, which returns it.
template <class Call>
int statusOfChild(Call call) {
  const pid_t child = fork();
  if (child == 0) _exit(call());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Starts each test with the empty database tsl_test, the only one it may change.
class DatabaseTest : public testing::Test {
 protected:
  static constexpr char s_name[] = "tsl_test";

  // Fixtures may hold connections to the database, which they open before SetUp().
  static void SetUpTestSuite() { makeDatabase(); }

  void SetUp() override { makeDatabase(); }

  static Testing::TestServer& server() { return Testing::TestServer::shared(); }
  static Rows sql(const std::string& statement) { return server().sql(statement); }
  static void makeDatabase() {
    if (server().pid() == 0) server().restart();
    sql("drop database if exists tsl_test");
    sql("create database tsl_test character set utf8mb4");
  }
  static void makeTable() {
    sql("create table tsl_test.t (name varchar(50) primary key, n int not null default 0) "
        "engine=InnoDB");
  }
  static std::string count(const std::string& table = "t") {
    return sql("select count(*) from tsl_test." + table).at(0).at(0);
  }
};

// A relay before the server, as the default server.
class RelayedTest : public DatabaseTest {
 protected:
  static std::string relayPath() { return server().directory() + "/relay.sock"; }

  Testing::SocketRelay m_relay{relayPath(), server().socketPath()};
  Testing::TestServer::OptionFile m_options{
      server(), "[client]\nsocket=" + relayPath() + "\nuser=" + callerName() + "\n"};
};

}  // namespace Tessel::Database

#endif
