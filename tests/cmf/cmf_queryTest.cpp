// The C functions over tables: found, not there, could not ask, bad arguments, damaged tables.
#include "cmf/cmf_query.h"

#include <sys/resource.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::HasSubstr;

class CmfQueryTest : public ConfigurationTest {};

struct Free {
  void operator()(cmf_query* query) const { cmf_query_free(query); }
};
using Query = std::unique_ptr<cmf_query, Free>;

Query s_query(std::uint32_t domainId) {
  return Query(cmf_query_create_withdomain(domainId, s_mailUserTable));
}

// The name in row `index`, or the error.
std::string s_name(cmf_query* query, std::int32_t index) {
  if (cmf_set_query_cache_st(query, CMF_QUERY_SLOT, index) != 0) return cmf_query_error();
  const void* const row = cmf_query_update(query);
  return row != nullptr ? static_cast<const __aps_mail_user*>(row)->user_name : cmf_query_error();
}

std::string s_bytes(const auto& record) {
  return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

std::string s_user(const std::string& name) {
  __aps_mail_user user{};
  name.copy(user.user_name, s_maxUserName);
  user.kind = MailUserMailbox;
  return s_bytes(user);
}

TEST_F(CmfQueryTest, ReadsTheRowsOfATable) {
  const Query query = s_query(addDomain("example.com", {"bob", "Ann"}));
  ASSERT_NE(query, nullptr);
  EXPECT_EQ(cmf_query_do_table_size(query.get(), 0), 2);
  EXPECT_EQ(cmf_query_record_size(query.get()), sizeof(__aps_mail_user));
  EXPECT_EQ(s_name(query.get(), 0), "Ann");
  EXPECT_EQ(s_name(query.get(), 1), "bob");
}

TEST_F(CmfQueryTest, AnEmptyTableHasNoRows) {
  const Query query = s_query(addDomain("example.com", {}));
  ASSERT_NE(query, nullptr);
  EXPECT_EQ(cmf_query_do_table_size(query.get(), 0), 0);
  EXPECT_EQ(cmf_set_query_cache_st(query.get(), 0, 0), -1);
  EXPECT_STREQ(cmf_query_error(), "There is no row 0 in a table of 0 rows");
}

TEST_F(CmfQueryTest, AnUnknownDomainOrTableIsAFailure) {
  const std::uint32_t id = addDomain("example.com", {"bob"});
  for (const auto& [domain, table] :
       std::vector<std::pair<std::uint32_t, std::uint32_t>>{{id + 1, 346},
                                                            {0, 0},
                                                            {0, 1},
                                                            {0, 346},
                                                            {0xffffffffU, 346},
                                                            {id, 345},
                                                            {id, 0},
                                                            {id, 0xffffffffU}}) {
    EXPECT_EQ(cmf_query_create_withdomain(domain, table), nullptr);
    EXPECT_THAT(cmf_query_error(),
                HasSubstr("There is no table " + std::to_string(table) +
                          " of a domain with identifier " + std::to_string(domain)));
  }
}

TEST_F(CmfQueryTest, AnAbsentConfigurationIsAFailure) {
  EXPECT_EQ(cmf_query_create_withdomain(1, 346), nullptr);
  EXPECT_THAT(cmf_query_error(), HasSubstr("No configuration in " + path()));
}

TEST_F(CmfQueryTest, AnIndexOutOfRangeIsAFailureAndKeepsTheSelection) {
  const Query query = s_query(addDomain("example.com", {"ann", "bob"}));
  EXPECT_EQ(s_name(query.get(), 1), "bob");
  for (const std::int32_t index : {-1, 2, 3, 2147483647, -2147483647 - 1}) {
    EXPECT_EQ(cmf_set_query_cache_st(query.get(), 0, index), -1) << index;
    EXPECT_THAT(cmf_query_error(), HasSubstr("no row " + std::to_string(index)));
  }
  EXPECT_STREQ(static_cast<const __aps_mail_user*>(cmf_query_update(query.get()))->user_name,
               "bob");
}

TEST_F(CmfQueryTest, ARowMustBeSelectedBeforeItIsRead) {
  const Query query = s_query(addDomain("example.com", {"ann"}));
  EXPECT_EQ(cmf_query_update(query.get()), nullptr);
  EXPECT_STREQ(cmf_query_error(), "No row of the query is selected");
}

TEST_F(CmfQueryTest, AQueryHasOneSlot) {
  const Query query = s_query(addDomain("example.com", {"ann"}));
  for (const std::int32_t slot : {-1, 1, 2}) {
    EXPECT_EQ(cmf_query_do_table_size(query.get(), slot), -1);
    EXPECT_THAT(cmf_query_error(), HasSubstr("no slot " + std::to_string(slot)));
    EXPECT_EQ(cmf_set_query_cache_st(query.get(), slot, 0), -1);
  }
}

TEST_F(CmfQueryTest, NoQueryIsAFailureAndFreeingItDoesNothing) {
  EXPECT_EQ(cmf_query_do_table_size(nullptr, 0), -1);
  EXPECT_STREQ(cmf_query_error(), "No query was given");
  EXPECT_EQ(cmf_query_record_size(nullptr), 0U);
  EXPECT_EQ(cmf_set_query_cache_st(nullptr, 0, 0), -1);
  EXPECT_EQ(cmf_query_update(nullptr), nullptr);
  cmf_query_free(nullptr);
}

TEST_F(CmfQueryTest, ReadingARowAgainGivesTheSameMemory) {
  const Query query = s_query(addDomain("example.com", {"ann", "bob"}));
  ASSERT_EQ(cmf_set_query_cache_st(query.get(), 0, 0), 0);
  const void* const first = cmf_query_update(query.get());
  EXPECT_EQ(cmf_query_update(query.get()), first);
  ASSERT_EQ(cmf_set_query_cache_st(query.get(), 0, 1), 0);
  EXPECT_NE(cmf_query_update(query.get()), first);
  ASSERT_EQ(cmf_set_query_cache_st(query.get(), 0, 0), 0);
  EXPECT_EQ(cmf_query_update(query.get()), first);
}

TEST_F(CmfQueryTest, RowsAreAlignedWhateverTheLengthOfTheirNames) {
  std::vector<std::string> users;
  for (std::size_t length = 1; length <= s_maxUserName; ++length) {
    for (char c = 'a'; c <= 'h'; ++c) users.emplace_back(length, c);
  }
  const Query query = s_query(addDomain("example.com", users));
  const std::int32_t count = cmf_query_do_table_size(query.get(), 0);
  ASSERT_EQ(static_cast<std::size_t>(count), users.size());
  for (std::int32_t i = 0; i < count; ++i) {
    ASSERT_EQ(cmf_set_query_cache_st(query.get(), 0, i), 0);
    const void* const row = cmf_query_update(query.get());
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(row) % 8, 0U);
  }
}

TEST_F(CmfQueryTest, RowsAreFoundInAnyOrder) {
  const std::vector<std::string> want = manyUsers(3000);
  addDomain("before.example", {"x"});
  const std::uint32_t id = addDomain("example.com", want);
  const std::uint32_t last = addDomain("behind.example", {"y", "z"});
  const Query query = s_query(id);
  std::mt19937 random(12345);
  for (int i = 0; i < 300; ++i) {
    const auto index = random() % want.size();
    EXPECT_EQ(s_name(query.get(), static_cast<std::int32_t>(index)), want[index]);
  }
  EXPECT_EQ(s_name(query.get(), 2999), want[2999]);
  EXPECT_EQ(s_name(query.get(), 0), want[0]);
  for (std::size_t i = want.size(); i-- > 0;) {
    ASSERT_EQ(s_name(query.get(), static_cast<std::int32_t>(i)), want[i]);
  }
  // The last table of all has nothing behind it.
  EXPECT_EQ(s_name(s_query(last).get(), 1), "z");
}

TEST_F(CmfQueryTest, ADamagedCountIsAFailureOfTheSize) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  for (const std::int64_t count : {std::int64_t{-1}, std::int64_t{2147483648}}) {
    putRaw(path(), text(Key(id, 346)), s_bytes(TableRecord{count, sizeof(__aps_mail_user), 0}));
    const Query query = s_query(id);
    ASSERT_NE(query, nullptr);
    EXPECT_EQ(cmf_query_do_table_size(query.get(), 0), -1);
    EXPECT_THAT(cmf_query_error(), HasSubstr("malformed table"));
    EXPECT_EQ(cmf_set_query_cache_st(query.get(), 0, 0), -1);
  }
}

TEST_F(CmfQueryTest, ATableRecordOfAnotherSizeIsAFailure) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  putRaw(path(), text(Key(id, 346)), "short");
  EXPECT_EQ(s_query(id), nullptr);
  EXPECT_THAT(cmf_query_error(), HasSubstr("malformed record"));
  for (const std::uint32_t size : {0U, 71U}) {
    putRaw(path(), text(Key(id, 346)), s_bytes(TableRecord{1, size, 0}));
    EXPECT_EQ(s_query(id), nullptr);
    EXPECT_THAT(cmf_query_error(), HasSubstr("malformed table"));
  }
}

TEST_F(CmfQueryTest, FewerRowsThanTheCountSaysAreAFailure) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  putRaw(path(), text(Key(id, 346)), s_bytes(TableRecord{9, sizeof(__aps_mail_user), 0}));
  {
    const Query query = s_query(id);
    EXPECT_EQ(s_name(query.get(), 0), "ann");
    EXPECT_THAT(s_name(query.get(), 1), HasSubstr("malformed table"));
    EXPECT_THAT(s_name(query.get(), 2), HasSubstr("malformed table"));
    // A failure does not spoil the query.
    EXPECT_EQ(s_name(query.get(), 0), "ann");
  }
  addDomain("behind.example", {"x"});
  const Query query = s_query(id);
  EXPECT_THAT(s_name(query.get(), 1), HasSubstr("malformed table"));
  EXPECT_EQ(s_name(query.get(), 0), "ann");
}

TEST_F(CmfQueryTest, MalformedRowsAreFailures) {
  const std::uint32_t id = addDomain("example.com", {"ann", "bob", "eve"});
  putRaw(path(), text(Key(id, 346, "bob")), std::string(71, 'x'));
  EXPECT_THAT(s_name(s_query(id).get(), 1), HasSubstr("malformed table"));
  putRaw(path(), text(Key(id, 346, "bob")), std::string(sizeof(__aps_mail_user), 'x'));
  EXPECT_THAT(s_name(s_query(id).get(), 1), HasSubstr("malformed table"));
  putRaw(path(), text(Key(id, 346, "bob")), s_user("bob"));
  EXPECT_EQ(s_name(s_query(id).get(), 1), "bob");
  EXPECT_EQ(s_name(s_query(id).get(), 2), "eve");
}

TEST_F(CmfQueryTest, ARowThatIsNotAlignedIsRefused) {
  const std::uint32_t id = addDomain("example.com", {});
  // A key of odd length puts whatever is stored on the same page after it off its place.
  putRaw(path(), std::string(9, '\xff'), "x");
  putRaw(path(), text(Key(id, 346, "bob")), s_user("bob"));
  putRaw(path(), text(Key(id, 346)), s_bytes(TableRecord{1, sizeof(__aps_mail_user), 0}));
  const Query query = s_query(id);
  ASSERT_NE(query, nullptr) << cmf_query_error();
  EXPECT_THAT(s_name(query.get(), 0), HasSubstr("malformed table"));
}

TEST_F(CmfQueryTest, ALongErrorIsCut) {
  setVariable("TSL_CMF_PATH", "/" + std::string(3000, 'x'));
  EXPECT_EQ(cmf_query_create_withdomain(1, 346), nullptr);
  EXPECT_EQ(std::strlen(cmf_query_error()), 1023U);
}

// The sanitizers reserve more than all the memory there is.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(CmfQueryTest, ALackOfMemoryIsAFailureWithAnError) {
  EXPECT_EQ(inChild([] {
              // What the first call keeps for later ones is not to be missing now.
              EXPECT_EQ(cmf_query_create_withdomain(1, 346), nullptr);
              setVariable("TSL_CMF_PATH", std::string(64UL * 1024 * 1024, 'x'));
              rlimit limit{};
              ASSERT_EQ(::getrlimit(RLIMIT_AS, &limit), 0);
              const rlimit none{0, limit.rlim_max};
              ASSERT_EQ(::setrlimit(RLIMIT_AS, &none), 0);
              cmf_query* const query = cmf_query_create_withdomain(1, 346);
              ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
              EXPECT_EQ(query, nullptr);
              EXPECT_STREQ(cmf_query_error(), "std::bad_alloc");
            }),
            0);
}
#endif

TEST_F(CmfQueryTest, ATableWithoutAnotherBehindItEndsAtTheLargestNumbers) {
  addDomain("example.com", {});
  const std::uint32_t most = 0xffffffffU;
  putRaw(path(), text(Key(most, most)), s_bytes(TableRecord{2, 8, 0}));
  putRaw(path(), text(Key(most, most, "a")), "row-a---");
  putRaw(path(), text(Key(most, most, "b")), "row-b---");
  const Query query(cmf_query_create_withdomain(most, most));
  ASSERT_NE(query, nullptr) << cmf_query_error();
  EXPECT_EQ(cmf_query_record_size(query.get()), 8U);
  ASSERT_EQ(cmf_set_query_cache_st(query.get(), 0, 1), 0);
  EXPECT_EQ(std::memcmp(cmf_query_update(query.get()), "row-b---", 8), 0);
}

}  // namespace
}  // namespace Tessel::CMF
