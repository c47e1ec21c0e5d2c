// Query: what counts as the statement, and what reaches the server.
#include "database/Query.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <locale>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class QueryTest : public DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    makeTable();
  }

  Connection m_connection{""};
};

TEST_F(QueryTest, TheTextUpToTheWritePositionIsTheStatement) {
  Query query(m_connection, nullptr, true);
  query << "select " << 1 << ", '" << std::string("x") << "';";
  EXPECT_EQ(query.statement(), "select 1, 'x';");
}

TEST_F(QueryTest, AfterSeekingBackANewStatementIsWrittenOverTheOldOne) {
  Testing::GeneralLog log(server());
  Query query(m_connection, nullptr, true);
  query << "select 'a long first statement'";
  query.execute();
  query.seekp(0);
  query << "select 2";
  query.execute();
  EXPECT_THAT(log.statementsSince(), ElementsAre("select 'a long first statement'", "select 2"));
}

TEST_F(QueryTest, TheStatementEndsAtItsFirstNulCharacter) {
  Testing::GeneralLog log(server());
  Query query(m_connection, nullptr, true);
  query << "select\n 1" << '\0';
  query.execute();
  query << "behind";
  query.execute();
  EXPECT_THAT(log.statementsSince(), ElementsAre("select\n 1", "select\n 1"));
}

TEST_F(QueryTest, TheWritePositionCanBeReadAndSetAnywhereInTheText) {
  Query query(m_connection, nullptr, true);
  query << "abcdef";
  EXPECT_EQ(query.tellp(), std::streampos(6));
  query.seekp(2);
  query << 'X';
  EXPECT_EQ(query.statement(), "abX");
  query.seekp(0, std::ios_base::end);
  EXPECT_EQ(query.statement(), "abXdef");
  query.seekp(-1, std::ios_base::cur);
  EXPECT_EQ(query.statement(), "abXde");
  query.seekp(7);
  EXPECT_TRUE(query.fail());
}

TEST_F(QueryTest, TextOfAnyLengthIsKeptWhole) {
  Query query(m_connection, nullptr, true);
  std::string want = "select '";
  query << "select '";
  for (int i = 0; i < 3000; ++i) {
    query << i << ',' << std::string(static_cast<std::size_t>(i % 97), 'x');
    want += std::to_string(i) + "," + std::string(static_cast<std::size_t>(i % 97), 'x');
  }
  query << "'";
  want += "'";
  EXPECT_EQ(query.statement(), want);
  query.seekp(5);
  query << std::string(100000, 'y');
  EXPECT_EQ(query.statement(), "selec" + std::string(100000, 'y'));
}

TEST_F(QueryTest, AnEmptyStatementIsAnErrorAndNothingIsSent) {
  Testing::GeneralLog log(server());
  Query query(m_connection, nullptr, true);
  auto got = caughtError([&] { query.execute(); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1065U);
  EXPECT_STREQ(got->file(), "Query");
  query << '\0' << "select 1";
  got = caughtError([&] { query.execute(); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1065U);
  EXPECT_THAT(log.statementsSince(), IsEmpty());
}

TEST_F(QueryTest, AStatementThatIsNotWholeIsNotSent) {
  Testing::GeneralLog log(server());
  Query query(m_connection, nullptr, true);
  const char* const nothing = nullptr;
  query << "delete from tsl_test.t" << nothing << " where name='x'";
  const auto got = caughtError([&] { query.execute(); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 2000U);
  EXPECT_THAT(log.statementsSince(), IsEmpty());
}

// The sanitizers reserve more than all the memory there is.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Status of a child in which `call` has 32 MB of memory left: 7 when it throws std::bad_alloc and
// the connection can be used afterwards.
template <class Call>
int s_shortOfMemory(Connection& connection, Call call) {
  return statusOfChild([&] {
    run(connection, "select 1");
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    const rlim_t before = std::exchange(
        limit.rlim_cur, static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE)) + 32UL * 1024 * 1024);
    setrlimit(RLIMIT_AS, &limit);
    try {
      call();
    } catch (const std::bad_alloc&) {
      limit.rlim_cur = before;
      setrlimit(RLIMIT_AS, &limit);
      return value(connection, "select 3", false) == "3" ? 7 : 2;
    } catch (const Error&) {
      return 1;
    }
    return 0;
  });
}

TEST_F(QueryTest, AStatementThatDoesNotFitInMemoryThrowsAndIsNotSent) {
  Testing::GeneralLog log(server());
  EXPECT_EQ(s_shortOfMemory(m_connection,
                            [&] {
                              Query query(m_connection, nullptr, true);
                              query << "delete from tsl_test.t";
                              const std::string text(1024UL * 1024, ' ');
                              for (int i = 0; i < 64; ++i) query << text;
                              query.execute();
                            }),
            7);
  EXPECT_THAT(log.statementsSince(), ElementsAre("select 1", "select 3"));
}

TEST_F(QueryTest, AResultThatDoesNotFitInMemoryIsNoErrorOfTheDatabase) {
  EXPECT_EQ(
      s_shortOfMemory(
          m_connection,
          [&] { run(m_connection, "select repeat('x', 1000) from tsl_test.seq_1_to_200000"); }),
      7);
}
#endif

TEST_F(QueryTest, NumbersAreWrittenWithoutTheProgramsLocale) {
  struct Grouping : std::numpunct<char> {
    [[nodiscard]] char do_thousands_sep() const override { return '.'; }
    [[nodiscard]] std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  Query query(m_connection, nullptr, true);
  std::locale::global(before);
  query << 1234567;
  EXPECT_EQ(query.statement(), "1234567");
}

TEST_F(QueryTest, TheParserIsCalledForAResultOnly) {
  TextParser parser;
  Query query(m_connection, &parser, true);
  query << "insert into tsl_test.t values('a', 1)";
  query.execute();
  EXPECT_EQ(parser.calls, 0);
  query.seekp(0);
  query << "select name from tsl_test.t where n=7";
  query.execute();
  EXPECT_EQ(parser.calls, 1);
  EXPECT_THAT(parser.rows, IsEmpty());
}

TEST_F(QueryTest, WithoutAParserTheRowsAreDropped) {
  Query query(m_connection, nullptr, true);
  query << "select 1 union select 2";
  query.execute();
  EXPECT_EQ(value(m_connection, "select 3"), "3");
}

TEST_F(QueryTest, AParserThatThrowsLeavesTheConnectionUsable) {
  struct Thrower : RowParser {
    void parse(void*, void*) override { throw std::runtime_error("parser"); }
  } parser;
  Query query(m_connection, &parser, true);
  query << "select 1 union select 2";
  const unsigned long before = m_connection.id();
  EXPECT_THROW(query.execute(), std::runtime_error);
  EXPECT_EQ(value(m_connection, "select 3"), "3");
  EXPECT_EQ(m_connection.id(), before);
}

TEST_F(QueryTest, FurtherResultsOfAProcedureAreTakenIn) {
  sql("create procedure tsl_test.p() begin select 1; select 2; insert into tsl_test.t values('p', "
      "1); "
      "end");
  EXPECT_THAT(run(m_connection, "call tsl_test.p()", false), ElementsAre(ElementsAre("1")));
  EXPECT_EQ(value(m_connection, "select count(*) from tsl_test.t"), "1");
}

TEST_F(QueryTest, AFailureBehindTheFirstResultIsReported) {
  sql("create procedure tsl_test.f() begin select 1; select * from nowhere; end");
  const auto got = caughtError([&] { run(m_connection, "call tsl_test.f()", false); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1146U);
  EXPECT_EQ(value(m_connection, "select 3"), "3");
}

TEST_F(QueryTest, ASecondStatementBehindASemicolonIsRefused) {
  const auto got = caughtError([&] { run(m_connection, "select 1; select 2"); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number(), 1064U);
}

TEST_F(QueryTest, AStatementTooLargeForTheServerIsAnErrorAndTheConnectionGoesOn) {
  const auto got = caughtError(
      [&] { run(m_connection, "select '" + std::string(20UL * 1024 * 1024, 'x') + "'"); });
  ASSERT_TRUE(got);
  EXPECT_LT(std::string(got->what()).size(), 2000U);
  EXPECT_THAT(got->what(), HasSubstr("The statement could not be sent: "));
  EXPECT_THAT(got->what(), HasSubstr("; it has 20971529 bytes, the server's max_allowed_packet may "
                                     "be less (error "));
  EXPECT_EQ(value(m_connection, "select 3"), "3");
}

}  // namespace
}  // namespace Tessel::Database
