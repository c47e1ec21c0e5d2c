// QueryTableNames: the tables of the selected database and of no other.
#include "database/QueryTableNames.h"

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class QueryTableNamesTest : public DatabaseTest {};

TEST_F(QueryTableNamesTest, TablesAndViewsOfTheSelectedDatabaseAreNamedInOrder) {
  Connection connection(s_name);
  EXPECT_THAT(QueryTableNames(connection).names(), IsEmpty());
  makeTable();
  sql("create table tsl_test.`B odd ``name` (a int)");
  sql("create view tsl_test.v as select 1");
  EXPECT_THAT(QueryTableNames(connection).names(), ElementsAre("B odd `name", "t", "v"));
}

TEST_F(QueryTableNamesTest, WithoutADatabaseItIsAnError) {
  Connection connection("");
  const auto got = caughtError([&] { QueryTableNames names(connection); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1046U);
}

}  // namespace
}  // namespace Tessel::Database
