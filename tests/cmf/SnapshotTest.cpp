// Snapshots: what a query sees, and the state that a thread locks.
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class SnapshotTest : public ConfigurationTest {};

void s_addUser(const std::string& domain, const std::string& user) {
  Writer writer;
  writer.addUser(domain, user, MailUserMailbox);
  writer.commit();
}

TEST_F(SnapshotTest, AQueryKeepsTheStateOfItsCreation) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  const UserQuery before(id);
  s_addUser("example.com", "bob");
  const UserQuery after(id);
  EXPECT_EQ(before.size(), 1);
  EXPECT_STREQ(before.begin()->user_name, "ann");
  EXPECT_EQ(after.size(), 2);
}

TEST_F(SnapshotTest, AQueryOfARemovedDomainReadsOn) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  const UserQuery query(id);
  Writer writer;
  writer.removeDomain("example.com");
  writer.commit();
  EXPECT_STREQ(query.begin()->user_name, "ann");
  EXPECT_THAT(failureOf([&] { const UserQuery late(id); }),
              HasSubstr("no table 346 of a domain with identifier " + std::to_string(id)));
}

TEST_F(SnapshotTest, UnderTheReadLockAThreadReadsOneState) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  s_addUser("example.com", "bob");
  addDomain("example.org", {});
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
  EXPECT_TRUE(cache->find("example.org").isNull());
  EXPECT_EQ(cache->domains().size(), 1U);
  // Other threads go on.
  std::thread([&] { EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob")); }).join();
  cmf_shm_read_unlock();
  EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob"));
  EXPECT_FALSE(cache->find("example.org").isNull());
}

TEST_F(SnapshotTest, ReadLocksNest) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  s_addUser("example.com", "bob");
  cmf_shm_read_unlock();
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
  cmf_shm_read_unlock();
  EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob"));
  cmf_shm_read_unlock();  // One too many is ignored.
  EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob"));
}

TEST_F(SnapshotTest, AQueryMadeUnderTheReadLockOutlivesIt) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  const UserQuery query(id);
  cmf_shm_read_unlock();
  s_addUser("example.com", "bob");
  EXPECT_EQ(query.size(), 1);
  EXPECT_STREQ(query.begin()->user_name, "ann");
}

TEST_F(SnapshotTest, TheReadLockStaysWithItsConfiguration) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  setVariable("TSL_CMF_PATH", directory() + "/other");
  addDomain("other.example", {});
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
  // A handle on another configuration reads that one.
  EXPECT_FALSE(RefApsGwServerCache::instance(false)->find("other.example").isNull());
  cmf_shm_read_unlock();
  EXPECT_TRUE(usersOf(id).empty());
}

TEST_F(SnapshotTest, AReadLockOnAnAbsentConfigurationFailsAndLocksNothing) {
  EXPECT_EQ(cmf_shm_read_lock(), -1);
  EXPECT_THAT(cmf_query_error(), HasSubstr(path()));
  const std::uint32_t id = addDomain("example.com", {"ann"});
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
}

TEST_F(SnapshotTest, AThreadThatEndsWithItsReadLockHeldReleasesIt) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  std::thread([&] {
    EXPECT_EQ(cmf_shm_read_lock(), 0);
    EXPECT_THAT(usersOf(id), ElementsAre("ann"));
  }).join();
  EXPECT_TRUE(readers(path()).empty());
}

TEST_F(SnapshotTest, AForkedChildStartsWithoutTheReadLock) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  s_addUser("example.com", "bob");
  EXPECT_EQ(inChild([&] {
              EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob"));
              cmf_shm_read_unlock();
              EXPECT_THAT(usersOf(id), ElementsAre("ann", "bob"));
            }),
            0);
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
  cmf_shm_read_unlock();
}

TEST_F(SnapshotTest, MoreSnapshotsThanTheTableOfReadersHoldsAreAFailureUntilOneEnds) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  std::vector<std::unique_ptr<UserQuery>> queries;
  queries.reserve(1024);
  for (int i = 0; i < 1024; ++i) queries.push_back(std::make_unique<UserQuery>(id));
  EXPECT_THAT(failureOf([&] { const UserQuery query(id); }), HasSubstr("too many snapshots"));
  queries.pop_back();
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
}

TEST_F(SnapshotTest, SlotsOfDeadReadersAreClearedWhenTheTableIsFull) {
  const std::uint32_t id = addDomain("example.com", {"ann"});
  const Signal reading;
  Child reader([&] {
    std::vector<std::unique_ptr<UserQuery>> queries;
    queries.reserve(1024);
    for (int i = 0; i < 1024; ++i) queries.push_back(std::make_unique<UserQuery>(id));
    reading.send();
    ::pause();
  });
  reading.await();
  reader.kill();
  EXPECT_THAT(usersOf(id), ElementsAre("ann"));
}

TEST_F(SnapshotTest, FailuresNameTheSnapshotAndTheReason) {
  std::filesystem::create_directory(path());
  putRaw(path(), "a colour", "is green");
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  try {
    static_cast<void>(cache->find("example.com"));
    FAIL() << "No Exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "CMF::Snapshot");
    EXPECT_EQ(e.code(), 4);
    EXPECT_STREQ(e.file(), "Snapshot");
    EXPECT_GT(e.line(), 1);
    EXPECT_EQ(e.stringParameter(),
              "The configuration in " + path() + " is empty: nothing was stored yet");
  }
}

TEST_F(SnapshotTest, AQueryMayMoveBetweenThreads) {
  const std::uint32_t id = addDomain("example.com", manyUsers(100));
  auto query = std::make_unique<UserQuery>(id);
  std::thread([&] { EXPECT_EQ(query->size(), 100); }).join();
  EXPECT_STREQ(query->begin()->user_name, "user0000000");
  std::thread([&] { query.reset(); }).join();
  EXPECT_TRUE(readers(path()).empty());
}

}  // namespace
}  // namespace Tessel::CMF
