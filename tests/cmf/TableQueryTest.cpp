// TableQuery: the rows as a range.
#include "cmf/TableQuery.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class TableQueryTest : public ConfigurationTest {};

static_assert(std::is_base_of_v<NonCopyable, UserQuery>);
static_assert(!std::is_copy_constructible_v<UserQuery>);
static_assert(std::forward_iterator<UserQuery::Iterator>);

TEST_F(TableQueryTest, VisitsTheUsersInOrderOfTheirLowerCasedNames) {
  const std::uint32_t id = addDomain("example.com", {"Zoe", "bob", "Ann", "carl", "b"});
  EXPECT_THAT(usersOf(id), ElementsAre("Ann", "b", "bob", "carl", "Zoe"));
}

TEST_F(TableQueryTest, ADomainWithoutUsersIsAnEmptyRange) {
  const UserQuery query(addDomain("example.com", {}));
  EXPECT_EQ(query.size(), 0);
  EXPECT_EQ(query.begin(), query.end());
}

TEST_F(TableQueryTest, AHundredThousandUsersAreVisitedOnceEach) {
  const std::vector<std::string> want = manyUsers(100000);
  const UserQuery query(addDomain("example.com", want));
  ASSERT_EQ(query.size(), 100000);
  std::size_t index = 0;
  for (const __aps_mail_user& user : query) {
    ASSERT_EQ(user.user_name, want[index]);
    ++index;
  }
  EXPECT_EQ(index, want.size());
}

TEST_F(TableQueryTest, KindsAreReadWithTheUsers) {
  Writer writer;
  const std::uint32_t id = writer.addDomain("example.com").id;
  writer.addUser("example.com", "ann", MailUserMailbox);
  writer.addUser("example.com", "bob", MailUserDisabled);
  writer.addUser("example.com", "room", MailUserShared);
  writer.commit();
  const UserQuery query(id);
  std::vector<std::pair<std::string, std::int32_t>> got;
  for (const __aps_mail_user& user : query) got.emplace_back(user.user_name, user.kind);
  EXPECT_THAT(got, ElementsAre(std::pair("ann", 1), std::pair("bob", 0), std::pair("room", 2)));
}

TEST_F(TableQueryTest, TwoIteratorsOfOneQueryDoNotDisturbEachOther) {
  const UserQuery query(addDomain("example.com", {"ann", "bob", "eve"}));
  auto front = query.begin();
  auto back = std::next(query.begin(), 2);
  EXPECT_STREQ(front->user_name, "ann");
  EXPECT_STREQ(back->user_name, "eve");
  EXPECT_STREQ((front++)->user_name, "ann");
  EXPECT_STREQ(front->user_name, "bob");
  EXPECT_STREQ((*back).user_name, "eve");
  EXPECT_NE(front, back);
  EXPECT_EQ(++front, back);
  EXPECT_EQ(std::distance(query.begin(), query.end()), 3);
}

TEST_F(TableQueryTest, RecordsStayWhereTheyAreWhileTheQueryLives) {
  const UserQuery query(addDomain("example.com", manyUsers(1000)));
  const __aps_mail_user& first = *query.begin();
  EXPECT_EQ(std::distance(query.begin(), std::max_element(query.begin(), query.end(),
                                                          [](const auto& a, const auto& b) {
                                                            return std::string(a.user_name) <
                                                                   b.user_name;
                                                          })),
            999);
  EXPECT_STREQ(first.user_name, "user0000000");
  EXPECT_EQ(&first, &*query.begin());
}

TEST_F(TableQueryTest, TheEndHasNoRecord) {
  const UserQuery query(addDomain("example.com", {"ann"}));
  EXPECT_THAT(failureOf([&] { static_cast<void>(*query.end()); }),
              HasSubstr("no row 1 in a table of 1 rows"));
  EXPECT_STREQ(query.begin()->user_name, "ann");
}

TEST_F(TableQueryTest, FailuresNameTheQueryAndTheReason) {
  try {
    const UserQuery query(1);
    FAIL() << "No Exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "CMF::TableQuery");
    EXPECT_EQ(e.code(), 4);
    EXPECT_STREQ(e.file(), "TableQuery");
    EXPECT_GT(e.line(), 1);
    EXPECT_THAT(e.stringParameter(), HasSubstr("No configuration in " + path()));
  }
}

TEST_F(TableQueryTest, AnUnknownDomainIsAFailureNotAnEmptyTable) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  EXPECT_THAT(failureOf([&] { const UserQuery query(id + 1); }), HasSubstr("no table 346"));
  EXPECT_THAT(failureOf([&] { const TableQuery<__aps_mail_user, 347> query(id); }),
              HasSubstr("no table 347"));
}

TEST_F(TableQueryTest, RowsOfAnotherSizeAreAFailure) {
  struct Small {
    std::int64_t number;
  };
  const std::uint32_t id = addDomain("example.com", {"ann"});
  EXPECT_THAT(failureOf([&] { const TableQuery<Small, s_mailUserTable> query(id); }),
              HasSubstr("Rows of table 346 have 72 bytes, this program reads 8"));
}

TEST_F(TableQueryTest, ACountOfMinusOneIsAskedAgainByTheIteratorsAndFailsWhenItStays) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  const TableRecord damaged{-5, sizeof(__aps_mail_user), 0};
  putRaw(path(), text(Key(id, s_mailUserTable)),
         std::string(reinterpret_cast<const char*>(&damaged), sizeof(damaged)));
  // Making the query is no failure yet; each question for the count is.
  const UserQuery query(id);
  EXPECT_THAT(failureOf([&] { static_cast<void>(query.size()); }), HasSubstr("malformed table"));
  EXPECT_THAT(failureOf([&] { static_cast<void>(query.begin()); }), HasSubstr("malformed table"));
  EXPECT_THAT(failureOf([&] { static_cast<void>(query.end()); }), HasSubstr("malformed table"));
}

TEST_F(TableQueryTest, WithTheReadLockItsThreadReadsOneStateAsLongAsItLives) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  {
    const UserQuery query(id, true);
    Writer writer;
    writer.addUser("example.com", "bob", MailUserMailbox);
    writer.commit();
    EXPECT_THAT(usersOf(id), ElementsAre("ann"));
  }
  EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob"));
}

TEST_F(TableQueryTest, WithoutTheReadLockDestructionLeavesTheThreadsLockAlone) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  { const UserQuery query(id); }
  addDomain("example.org", {});
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("example.org").isNull());
  cmf_shm_read_unlock();
  EXPECT_FALSE(RefApsGwServerCache::instance(false)->find("example.org").isNull());
}

TEST_F(TableQueryTest, AQueryThatCannotBeMadeLeavesNoReadLock) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  EXPECT_THAT(failureOf([&] { const UserQuery query(id + 1, true); }), HasSubstr("no table"));
  addDomain("example.org", {"bob"});
  EXPECT_THAT(usersOf("example.org"), ElementsAre("bob"));
  setVariable("TSL_CMF_PATH", directory() + "/none");
  EXPECT_THAT(failureOf([&] { const UserQuery query(id, true); }), HasSubstr("/none"));
}

}  // namespace
}  // namespace Tessel::CMF
