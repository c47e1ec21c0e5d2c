// QueryDescribeTable: the columns of a table as the server describes them.
#include "database/QueryDescribeTable.h"

#include <iterator>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

class QueryDescribeTableTest : public DatabaseTest {};

TEST_F(QueryDescribeTableTest, TheFieldsCarryWhatTheServerSaysOfEachColumn) {
  sql("create table tsl_test.`o``dd` (name varchar(255) unique primary key not null, members "
      "mediumtext not null, flag tinyint default 3)");
  Connection connection(s_name);
  const QueryDescribeTable table(connection, "o`dd");
  ASSERT_EQ(table.fields().size(), 3U);
  const Field& name = table.fields().front();
  EXPECT_EQ(name.name, "name");
  EXPECT_EQ(name.type, "varchar(255)");
  EXPECT_FALSE(name.nullable);
  EXPECT_EQ(name.key, "PRI");
  EXPECT_EQ(std::next(table.fields().begin())->type, "mediumtext");
  const Field& flag = table.fields().back();
  EXPECT_TRUE(flag.nullable);
  EXPECT_EQ(flag.defaultValue, "3");
  EXPECT_EQ(flag.extra, "");
}

TEST_F(QueryDescribeTableTest, AMissingTableIsAnError) {
  Connection connection(s_name);
  const auto got = caughtError([&] { QueryDescribeTable table(connection, "nowhere"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1146U);
}

}  // namespace
}  // namespace Tessel::Database
