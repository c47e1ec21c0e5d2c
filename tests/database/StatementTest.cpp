// Statement: which statements may be sent twice, and how statements look in messages.
#include "database/Statement.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel::Database {
namespace {

struct Case {
  const char* text;
  bool want;
};

TEST(Statement, OnlyStatementsWhoseRepetitionChangesNothingAreRepeatable) {
  const Case cases[] = {
      {"select * from t where name='x';", true},
      {"  SELECT 1", true},
      {"show tables", true},
      {"describe `t`", true},
      {"explain select 1", true},
      {"set names utf8mb4", true},
      {"set statement max_statement_time=1 for insert into t values(1)", false},
      {"delete from t where name ='x';", true},
      {"delete from t where name like'%@limit'", true},
      {"delete from t where a0limit=1", true},
      {"delete from t limit 5", false},
      {"delete from t where a=1 returning name", false},
      {"insert into t ( name, members ) values( 'a','b') on duplicate key update "
       "members=values( members );",
       true},
      {"insert into t values('on duplicate key update') ", false},
      {"insert into t(a) values(1) on duplicate key update hits=hits+1", false},
      {"insert into t(a) values(1) on duplicate key update a=concat(a,'x')", false},
      {"insert into t(a) values(1) on duplicate key update a=values(a), b='x'", true},
      {"insert into t(a) values(1) on duplicate key update a=values(a) + 1", false},
      {"insert into t(a) values(1) on duplicate key update t.a = values(a)", true},
      {"insert into t values(1)", false},
      {"replace into t values(1)", true},
      {"create table if not exists t(a int)", true},
      {"create table t(a int)", false},
      {"create unique index i on t( a )", false},
      {"Create database d;", false},
      {"drop database if exists `d`", true},
      {"drop table t", false},
      {"update t set a=1", false},
      {"alter table t add b int", false},
      {"start transaction", true},
      {"start slave", false},
      {"commit", false},
      {"/* select */ update t set a=1", false},
      {"select 1 -- tail", false},
      {"select /*+ SET_VAR(a=0) */ 1", true},
      {"select /*+ SET_VAR(a=0) */ 1 /*! into outfile 'f' */", false},
      {"select /*+ ", false},
      {"call p()", false},
      {"", false},
      {"select", false},
  };
  for (const Case& one : cases) EXPECT_EQ(isRepeatable(one.text), one.want) << one.text;
}

TEST(Statement, ReadingStatementsAreTold) {
  EXPECT_TRUE(onlyReads("select 1"));
  EXPECT_TRUE(onlyReads(" Show tables"));
  EXPECT_TRUE(onlyReads("start transaction"));
  EXPECT_FALSE(onlyReads("start slave"));
  EXPECT_FALSE(onlyReads("replace into t values(1)"));
  EXPECT_FALSE(onlyReads("select"));
}

TEST(Statement, OnlyStatementsThatEndNoTransactionStayInIt) {
  EXPECT_TRUE(staysInTransaction("insert into t values(1)"));
  EXPECT_TRUE(staysInTransaction(" UPDATE t set a=1"));
  EXPECT_FALSE(staysInTransaction("commit"));
  EXPECT_FALSE(staysInTransaction("create table t(a int)"));
  EXPECT_FALSE(staysInTransaction(""));
}

TEST(Statement, LongLiteralsAreCutToTheirBeginningAndTheirLength) {
  const std::string address(60, 'a');
  EXPECT_EQ(shortenedStatement("select '" + address + "', 'b'"),
            "select 'aaaaaaaaaaaaaaaaaaaa...' (60 bytes), 'b'");
  const std::string just(40, 'a');
  EXPECT_EQ(shortenedStatement("select '" + just + "'"), "select '" + just + "'");
}

TEST(Statement, EscapedQuotesDoNotEndALiteral) {
  const std::string text(50, 'a');
  EXPECT_EQ(shortenedStatement("x='" + std::string("\\'''") + text + "' y"),
            "x='" + std::string("\\'''") + std::string(16, 'a') + "...' (54 bytes) y");
}

TEST(Statement, ALiteralWithoutEndIsCutToo) {
  const std::string shown = shortenedStatement("select '" + std::string(5000, 'a'));
  EXPECT_LT(shown.size(), 60U) << shown;
}

TEST(Statement, ALongStatementIsCutAt500Bytes) {
  const std::string shown = shortenedStatement("select " + std::string(2000, '1'));
  EXPECT_EQ(shown.size(), 503U);
  EXPECT_TRUE(shown.ends_with("1..."));
}

TEST(Statement, CuttingKeepsUtf8CharactersWhole) {
  EXPECT_EQ(cutText("ab\xc3\xa9g", 3), "ab...");
  EXPECT_EQ(cutText("ab\xc3\xa9g", 4), "ab\xc3\xa9...");
  EXPECT_EQ(cutText("abc", 3), "abc");
}

TEST(Statement, BackquotesInsideANameAreDoubled) {
  EXPECT_EQ(quotedName("a`b"), "`a``b`");
  EXPECT_EQ(quotedName(""), "``");
}

}  // namespace
}  // namespace Tessel::Database
