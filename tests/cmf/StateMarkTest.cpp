// The mark of a state: another one after each change, the same one otherwise.
#include "cmf/StateMark.h"

#include <filesystem>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/cmf_query.h"

namespace Tessel::CMF {
namespace {

class StateMarkTest : public ConfigurationTest {};

TEST_F(StateMarkTest, ChangesWithEachCommitOnly) {
  addDomain("one.example", {});
  const StateMark first = stateMark();
  EXPECT_EQ(stateMark(), first);
  addDomain("two.example", {});
  const StateMark second = stateMark();
  EXPECT_NE(second, first);
  EXPECT_GT(second.transaction, first.transaction);
  EXPECT_EQ(second.files, first.files);
}

TEST_F(StateMarkTest, IsThatOfTheStateThatTheThreadHasLocked) {
  addDomain("one.example", {});
  const std::uint64_t before = stateMark().transaction;
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  EXPECT_EQ(inChild([] { addDomain("two.example", {}); }), 0);
  EXPECT_EQ(stateMark().transaction, before);
  cmf_shm_read_unlock();
  EXPECT_GT(stateMark().transaction, before);
}

TEST_F(StateMarkTest, ChangesWhenSomebodyElseWritesIntoTheFile) {
  addDomain("one.example", {});
  const StateMark before = stateMark();
  std::filesystem::resize_file(path() + "/data.mdb",
                               static_cast<std::uintmax_t>(before.data[0]) + 4096);
  const StateMark after = stateMark();
  EXPECT_EQ(after.transaction, before.transaction);
  EXPECT_NE(after.data, before.data);
}

TEST_F(StateMarkTest, ShowsThatAnOlderFileWasWrittenOverOneInUse) {
  addDomain("one.example", {});
  addDomain("other.example", {});
  const std::string old = directory() + "/old.mdb";
  std::filesystem::copy_file(path() + "/data.mdb", old);
  addDomain("two.example", {});
  EXPECT_EQ(stateMark().transaction, stateMark().newest);
  std::filesystem::copy_file(old, path() + "/data.mdb",
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(stateMark().transaction, stateMark().newest + 1);
  // It is as it should be for who opens it when nobody uses it.
  RefApsGwServerCache::instance(true);
  EXPECT_EQ(stateMark().transaction, stateMark().newest);
}

TEST_F(StateMarkTest, OfFilesThatWereReplacedIsAnother) {
  addDomain("one.example", {});
  const StateMark before = stateMark();
  std::filesystem::rename(path(), directory() + "/old");
  addDomain("one.example", {});
  EXPECT_NE(stateMark().files, before.files);
}

TEST_F(StateMarkTest, ThereIsNoneWithoutAConfiguration) {
  EXPECT_THROW(stateMark(), Exception);
}

}  // namespace
}  // namespace Tessel::CMF
