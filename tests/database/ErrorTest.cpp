// Error: what a database failure reports, and what it keeps to itself.
#include "database/Error.h"

#include <string>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(Error, TheFactsCanBeReadBackAndMakeUpTheDetail) {
  const Error got("Where", "File", 7, {1146, "42S02", "No table", "select 1", true});
  EXPECT_EQ(got.code(), 1146);
  EXPECT_EQ(got.number(), 1146U);
  EXPECT_EQ(got.sqlState(), "42S02");
  EXPECT_EQ(got.statement(), "select 1");
  EXPECT_TRUE(got.outcomeUnknown());
  EXPECT_EQ(got.context(), "Where");
  EXPECT_STREQ(got.file(), "File");
  EXPECT_EQ(got.line(), 7);
  EXPECT_EQ(got.stringParameter(), "No table (error 1146, SQL state 42S02); statement: select 1");
}

TEST(Error, WithoutAStatementTheDetailEndsWithTheState) {
  const Error got("Where", "File", 7, {2002, "HY000", "No server", {}, false});
  EXPECT_EQ(got.stringParameter(), "No server (error 2002, SQL state HY000)");
  EXPECT_EQ(got.statement(), "");
}

TEST(Error, AsACauseItKeepsItsOwnFacts) {
  Exception outer("Outer", 4, nullptr, 0);
  outer.cause(Error("Where", "File", 7, {1146, "42S02", "No table", "select 1", false}));
  const auto* got = dynamic_cast<const Error*>(outer.cause());
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->number(), 1146U);
  EXPECT_EQ(got->sqlState(), "42S02");
}

TEST(Error, AnOverlongMessageIsCut) {
  const Error got("Where", "File", 7, {1064, "42000", std::string(5000, 'm'), {}, false});
  EXPECT_LT(got.stringParameter().size(), 700U);
}

class ErrorOnServer : public DatabaseTest {};

TEST_F(ErrorOnServer, AMissingTableIsReportedWithNumberStateAndStatement) {
  Connection connection(s_name);
  const auto got = caughtError([&] { run(connection, "select * from nowhere where a='x';"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1146U);
  EXPECT_EQ(got->sqlState(), "42S02");
  EXPECT_EQ(got->context(), "Database::Query::execute");
  EXPECT_STREQ(got->file(), "Connection");
  EXPECT_GT(got->line(), 1);
  EXPECT_FALSE(got->outcomeUnknown());
  EXPECT_EQ(got->stringParameter(),
            "Table 'tsl_test.nowhere' doesn't exist (error 1146, SQL state 42S02); statement: "
            "select * from nowhere where a='x';");
}

TEST_F(ErrorOnServer, ALongAddressListDoesNotAppear) {
  std::string list;
  for (int i = 0; i < 200; ++i) list += "person" + std::to_string(i) + "@secret.example,";
  Connection connection(s_name);
  const auto got =
      caughtError([&] { run(connection, "insert into nowhere values('a','" + list + "')"); });
  ASSERT_TRUE(got);
  EXPECT_THAT(got->what(), Not(HasSubstr("person2@")));
  EXPECT_THAT(got->what(), HasSubstr("bytes)"));
}

}  // namespace
}  // namespace Tessel::Database
