// db_result: rows and values of every kind, in order and at random.
#include "database/db_result.h"

#include <functional>
#include <string>
#include <vector>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

// Runs a function as the parser.
class FunctionParser : public RowParser {
 public:
  explicit FunctionParser(std::function<void(void*, void*)> function)
      : m_function(std::move(function)) {}
  void parse(void* connection, void* result) override { m_function(connection, result); }

 private:
  std::function<void(void*, void*)> m_function;
};

class DbResult : public DatabaseTest {
 protected:
  void with(const std::string& statement, std::function<void(void*, void*)> function) {
    FunctionParser parser(std::move(function));
    Query query(m_connection, &parser, true);
    query << statement;
    query.execute();
  }

  Connection m_connection{"tsl_test"};
};

TEST_F(DbResult, AResultWithoutRowsHasColumnsAndNothingElse) {
  with("select 1, 2 from dual where 1=0", [](void* connection, void* result) {
    EXPECT_EQ(db_result_row_num(result), 0);
    EXPECT_EQ(db_result_row_num(connection, result), 0);
    EXPECT_EQ(db_result_column_num(result), 2U);
    EXPECT_STREQ(db_result_column_name(result, 1), "2");
    EXPECT_STREQ(db_result_column_name(result, 2), "");
    EXPECT_STREQ(db_result_column_name(nullptr, 0), "");
    EXPECT_EQ(db_result_fetch_row(result, 0), nullptr);
    EXPECT_STREQ(db_result_get_value(connection, result, nullptr, 0), "");
    EXPECT_EQ(db_result_field_length(result, 0), 0U);
  });
}

TEST_F(DbResult, NullEmptyAndBinaryValuesAreToldApartByTheirLength) {
  with("select null, '', 'a\\0b', 'xyz'", [](void* connection, void* result) {
    EXPECT_EQ(db_result_field_length(result, 3), 0U) << "nothing was fetched yet";
    void* const row = db_result_fetch_row(result, 0);
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(db_result_get_value(connection, result, row, 0), "");
    EXPECT_EQ(db_result_field_length(result, 0), 0U);
    EXPECT_STREQ(db_result_get_value(connection, result, row, 1), "");
    EXPECT_EQ(db_result_field_length(result, 1), 0U);
    EXPECT_EQ(std::string(db_result_get_value(connection, result, row, 2), 3),
              std::string("a\0b", 3));
    EXPECT_EQ(db_result_field_length(result, 2), 3U);
    EXPECT_STREQ(db_result_get_value(connection, result, row, 3), "xyz");
    EXPECT_STREQ(db_result_get_value(connection, result, row, 4), "");
    EXPECT_EQ(db_result_field_length(result, 4), 0U);
  });
}

TEST_F(DbResult, RowsCanBeFetchedInAnyOrder) {
  run(m_connection, "create table numbers (n int primary key)");
  std::string values;
  for (int i = 0; i < 100; ++i) values += (i == 0 ? "(" : ",(") + std::to_string(i) + ")";
  run(m_connection, "insert into numbers values " + values, false);
  with("select n from numbers order by n", [](void* connection, void* result) {
    ASSERT_EQ(db_result_row_num(result), 100);
    std::vector<std::int64_t> order;
    for (std::int64_t i = 0; i < 100; ++i) order.push_back(i);
    for (const std::int64_t i : {7, 7, 8, 3, 99, 0, 1, 98}) order.push_back(i);
    for (const std::int64_t i : order) {
      void* const row = db_result_fetch_row(result, i);
      const std::string want = std::to_string(i);
      EXPECT_EQ(db_result_get_value(connection, result, row, 0), want);
      EXPECT_EQ(db_result_field_length(result, 0), want.size());
    }
    EXPECT_EQ(db_result_fetch_row(result, 100), nullptr);
    EXPECT_EQ(db_result_fetch_row(result, -1), nullptr);
  });
}

TEST_F(DbResult, ARowFetchedEarlierKeepsItsValues) {
  with("select 'first' union all select 'second'", [](void* connection, void* result) {
    void* const first = db_result_fetch_row(result, 0);
    void* const second = db_result_fetch_row(result, 1);
    EXPECT_STREQ(db_result_get_value(connection, result, first, 0), "first");
    EXPECT_STREQ(db_result_get_value(connection, result, second, 0), "second");
  });
}

TEST(DbResultWithout, NoResultCountsAsOneWithoutRowsAndColumns) {
  EXPECT_EQ(db_result_row_num(nullptr), 0);
  EXPECT_EQ(db_result_row_num(nullptr, nullptr), 0);
  EXPECT_EQ(db_result_column_num(nullptr), 0U);
  EXPECT_EQ(db_result_fetch_row(nullptr, 0), nullptr);
  EXPECT_STREQ(db_result_get_value(nullptr, nullptr, nullptr, 0), "");
  EXPECT_EQ(db_result_field_length(nullptr, 0), 0U);
}

}  // namespace
}  // namespace Tessel::Database
