// Open environments: one per directory and process, replaced and damaged ones, forks.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <lmdb.h>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class EnvironmentTest : public ConfigurationTest {};

// Overwrites `length` bytes of a file from `offset` on.
void s_overwrite(const std::string& file, std::streamoff offset, std::size_t length, char byte) {
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.seekp(offset);
  const std::string bytes(length, byte);
  stream.write(bytes.data(), static_cast<std::streamsize>(length));
  ASSERT_TRUE(stream.good());
}

// True when process `pid` waits for a file lock.
bool s_waitsForLock(pid_t pid) {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    // "1: -> POSIX  ADVISORY  READ 4711 fe:00:123 0 0"
    if (line.find(" -> ") != std::string::npos &&
        line.find(" " + std::to_string(pid) + " ") != std::string::npos) {
      return true;
    }
  }
  return false;
}

TEST_F(EnvironmentTest, TheDirectoryMayBeNamedByManyPathsAtATime) {
  addDomain("example.com", {"bob"});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  std::filesystem::create_symlink(path(), directory() + "/link");
  setVariable("TSL_CMF_PATH", directory() + "/link");
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  setVariable("TSL_CMF_PATH", directory() + "/./cmf");
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  // A second opening would have dropped this process's place in the table of readers.
  const UserQuery query(cache->find("example.com")->domainId());
  EXPECT_THAT(readers(path()), Contains(::getpid()));
}

TEST_F(EnvironmentTest, AnotherPathIsFollowedAtOnceAndTheOldHandleKeepsReadingTheOldOne) {
  addDomain("one.example", {"bob"});
  const RefApsGwServerCache one = RefApsGwServerCache::instance(false);
  setVariable("TSL_CMF_PATH", directory() + "/other");
  addDomain("two.example", {"ann"});
  const RefApsGwServerCache two = RefApsGwServerCache::instance(false);
  EXPECT_TRUE(two->find("one.example").isNull());
  EXPECT_FALSE(two->find("two.example").isNull());
  EXPECT_FALSE(one->find("one.example").isNull());
  EXPECT_TRUE(one->find("two.example").isNull());
  setVariable("TSL_CMF_PATH", path());
  EXPECT_THAT(usersOf("one.example"), ElementsAre("bob"));
}

TEST_F(EnvironmentTest, ADirectoryRenamedIntoPlaceIsFollowedAtOnce) {
  addDomain("old.example", {"bob"});
  const RefApsGwServerCache old = RefApsGwServerCache::instance(false);
  EXPECT_EQ(inChild([this] {
              setVariable("TSL_CMF_PATH", directory() + "/new");
              addDomain("new.example", {"ann"});
            }),
            0);
  std::filesystem::rename(path(), directory() + "/old");
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }), HasSubstr(path()));
  std::filesystem::rename(directory() + "/new", path());
  EXPECT_THAT(usersOf("new.example"), ElementsAre("ann"));
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("old.example").isNull());
  EXPECT_FALSE(old->find("old.example").isNull());
}

TEST_F(EnvironmentTest, ADirectoryReplacedWhileItIsBeingOpenedIsOpenedAsItIsThen) {
  EXPECT_EQ(inChild([this] {
              addDomain("old.example", {"bob"});
              setVariable("TSL_CMF_PATH", directory() + "/new");
              addDomain("new.example", {"ann"});
            }),
            0);
  // LMDB locks the first byte of the file to open an environment: this stops it half-way.
  const int file = ::open((path() + "/lock.mdb").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  struct flock first {};
  first.l_type = F_WRLCK;
  first.l_len = 1;
  ASSERT_EQ(::fcntl(file, F_SETLK, &first), 0);
  Child reader([] { EXPECT_THAT(usersOf("new.example"), ElementsAre("ann")); });
  for (int i = 0; i < 2000 && !s_waitsForLock(reader.pid()); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(s_waitsForLock(reader.pid()));
  std::filesystem::rename(path(), directory() + "/old");
  std::filesystem::rename(directory() + "/new", path());
  ::close(file);
  EXPECT_EQ(reader.wait(), 0);
}

TEST_F(EnvironmentTest, DataReplacedBesideALockFileInUseIsRefused) {
  addDomain("example.com", {"bob"});
  {
    const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
    std::filesystem::copy_file(path() + "/data.mdb", path() + "/copy");
    std::filesystem::rename(path() + "/copy", path() + "/data.mdb");
    EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }),
                HasSubstr("replaced next to a lock.mdb in use"));
  }
  // Nobody uses the old one any more.
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
}

TEST_F(EnvironmentTest, ReopeningKeepsWhatIsInUseAndOpensWhatIsNot) {
  addDomain("example.com", {"bob"});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  const UserQuery query(cache->find("example.com")->domainId());
  const RefApsGwServerCache again = RefApsGwServerCache::instance(true);
  EXPECT_FALSE(again->find("example.com").isNull());
  EXPECT_EQ(query.size(), 1);
  EXPECT_STREQ(query.begin()->user_name, "bob");
}

TEST_F(EnvironmentTest, ReopeningAReaderThatWasOpenedBeforeTheMapGrewHelps) {
  setVariable("TSL_CMF_MAP_MIB", "1");
  addDomain("example.com", {"bob"});
  {
    const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
    setVariable("TSL_CMF_MAP_MIB", "");
    EXPECT_EQ(inChild([] { addDomain("big.example", manyUsers(20000)); }), 0);
    EXPECT_THAT(failureOf([&] { static_cast<void>(cache->find("example.com")); }),
                HasSubstr("TSL_CMF_MAP_MIB"));
  }
  EXPECT_FALSE(RefApsGwServerCache::instance(true)->find("big.example").isNull());
}

TEST_F(EnvironmentTest, AnUnknownFormatVersionIsRefusedByReadersAndWriters) {
  addDomain("example.com", {"bob"});
  MetaRecord meta{};
  std::copy_n(s_formatMagic, sizeof(s_formatMagic), meta.magic);
  meta.version = 2;
  putRaw(path(), text(Key(0, 0)), std::string(reinterpret_cast<const char*>(&meta), sizeof(meta)));
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  const std::string want = "format version 2, this program knows version 1";
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->find("example.com")); }), HasSubstr(want));
  EXPECT_THAT(failureOf([] { const UserQuery query(1); }), HasSubstr(want));
  EXPECT_THAT(failureOf([] { const Writer writer; }), HasSubstr(want));
}

TEST_F(EnvironmentTest, AnEnvironmentOfAnotherProgramIsRefusedByReadersAndWriters) {
  const auto read = [] {
    static_cast<void>(RefApsGwServerCache::instance(false)->find("example.com"));
  };
  std::filesystem::create_directory(path());
  putRaw(path(), "a colour", "is green");
  EXPECT_THAT(failureOf(read), HasSubstr("nothing was stored yet"));
  EXPECT_THAT(failureOf([] { const Writer writer; }), HasSubstr("no configuration"));
  putRaw(path(), text(Key(0, 0)), "sixteen letters!");
  EXPECT_THAT(failureOf(read), HasSubstr("no configuration"));
  EXPECT_THAT(failureOf([] { const Writer writer; }), HasSubstr("no configuration"));
}

TEST_F(EnvironmentTest, AFileThatIsNoEnvironmentIsRefused) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  s_overwrite(path() + "/data.mdb", 0, 8192, 'x');
  EXPECT_EQ(failureOf([] { RefApsGwServerCache::instance(false); }),
            "Cannot open the configuration in " + path() + ": " + mdb_strerror(MDB_INVALID) +
                " (the configuration is damaged: restore it, or remove the directory and load it"
                " again)");
  EXPECT_THAT(failureOf([] { const Writer writer; }), HasSubstr("damaged"));
}

TEST_F(EnvironmentTest, ATreeOverwrittenWithZerosIsAFailureNotAnEmptyConfiguration) {
  EXPECT_EQ(inChild([] { addDomain("example.com", manyUsers(1000)); }), 0);
  const auto size = std::filesystem::file_size(path() + "/data.mdb");
  s_overwrite(path() + "/data.mdb", 8192, size - 8192, '\0');
  EXPECT_THAT(failureOf([] {
                static_cast<void>(RefApsGwServerCache::instance(false)->find("example.com"));
              }),
              HasSubstr("damaged"));
}

TEST_F(EnvironmentTest, ACutOffFileIsRefused) {
  EXPECT_EQ(inChild([] { addDomain("example.com", manyUsers(10000)); }), 0);
  const auto size = std::filesystem::file_size(path() + "/data.mdb");
  std::filesystem::resize_file(path() + "/data.mdb", size / 2);
  const std::string detail = failureOf([] { RefApsGwServerCache::instance(false); });
  EXPECT_THAT(detail, HasSubstr("is truncated"));
  EXPECT_THAT(detail, HasSubstr(path()));
}

TEST_F(EnvironmentTest, AForkedChildReadsAndWritesThroughItsOwnEnvironment) {
  const std::uint32_t id = addDomain("example.com", manyUsers(1000));
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  const UserQuery query(id);
  EXPECT_EQ(inChild([&] {
              // The inherited handle serves, through an environment that the child opens.
              EXPECT_FALSE(cache->find("example.com").isNull());
              EXPECT_EQ(usersOf(id).size(), 1000U);
              const UserQuery own(id);
              EXPECT_THAT(readers(path()), Contains(::getpid()));
            }),
            0);
  EXPECT_EQ(inChild([] { addDomain("child.example", {"bob"}); }), 0);
  EXPECT_FALSE(cache->find("child.example").isNull());
  EXPECT_THAT(readers(path()), Contains(::getpid()));
}

TEST_F(EnvironmentTest, AQueryDoesNotSurviveAForkAndItsParentKeepsItsState) {
  const std::uint32_t id = addDomain("example.com", manyUsers(5000));
  auto query = std::make_unique<UserQuery>(id);
  ASSERT_EQ(query->size(), 5000);
  EXPECT_EQ(inChild([&] {
              EXPECT_THAT(failureOf([&] { static_cast<void>(*query->begin()); }),
                          HasSubstr("before the fork"));
              query.reset();
            }),
            0);
  // Had the child given up the parent's snapshot, its pages would be used again here.
  for (int round = 0; round < 4; ++round) {
    EXPECT_EQ(inChild([&] {
                Writer writer;
                writer.removeDomain("other.example");
                writer.addDomain("other.example");
                for (const std::string& user : manyUsers(5000)) {
                  writer.addUser("example.com", user,
                                 round % 2 == 0 ? MailUserShared : MailUserDisabled);
                  writer.addUser("other.example", user, MailUserMailbox);
                }
                writer.commit();
              }),
              0);
  }
  int index = 0;
  const std::vector<std::string> want = manyUsers(5000);
  for (const __aps_mail_user& user : *query) {
    ASSERT_EQ(user.user_name, want.at(static_cast<std::size_t>(index)));
    ASSERT_EQ(user.kind, MailUserMailbox);
    ++index;
  }
  EXPECT_EQ(index, 5000);
}

TEST_F(EnvironmentTest, AReaderThatIsKilledLeavesNothingBehind) {
  const std::uint32_t id = addDomain("example.com", {"bob"});
  const Signal reading;
  Child reader([&] {
    const UserQuery query(id);
    reading.send();
    ::pause();
  });
  reading.await();
  const pid_t pid = reader.pid();
  EXPECT_THAT(readers(path()), Contains(pid));
  reader.kill();
  EXPECT_THAT(readers(path()), Contains(pid));
  addDomain("example.org", {});
  EXPECT_THAT(readers(path()), Not(Contains(pid)));
}

}  // namespace
}  // namespace Tessel::CMF
