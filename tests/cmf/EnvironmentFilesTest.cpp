// The directory and files of the configuration: settings, creation, rights.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/EnvironmentFiles.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::HasSubstr;

class EnvironmentFilesTest : public ConfigurationTest {};

unsigned int s_mode(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

TEST(FileIdentity, FilesWithoutALockFileShareNone) {
  EXPECT_FALSE(FileIdentity().sameLock(FileIdentity()));
}

TEST_F(EnvironmentFilesTest, ReadingCreatesNothing) {
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }), HasSubstr(path()));
  EXPECT_FALSE(std::filesystem::exists(path()));
  std::filesystem::create_directory(path());
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }), HasSubstr(path()));
  EXPECT_TRUE(std::filesystem::is_empty(path()));
}

TEST_F(EnvironmentFilesTest, WritingCreatesTheDirectoryItsParentsAndTheFiles) {
  const std::string deep = directory() + "/one/two/cmf";
  setVariable("TSL_CMF_PATH", deep);
  const mode_t former = ::umask(022);
  addDomain("example.com", {});
  ::umask(former);
  EXPECT_EQ(s_mode(directory() + "/one"), 0755U);
  EXPECT_EQ(s_mode(deep), 0750U);
  EXPECT_EQ(s_mode(deep + "/data.mdb"), 0640U);
  EXPECT_EQ(s_mode(deep + "/lock.mdb"), 0660U);
}

TEST_F(EnvironmentFilesTest, AStrictUmaskClosesTheDirectoryButNotTheFiles) {
  const mode_t former = ::umask(077);
  addDomain("example.com", {});
  ::umask(former);
  EXPECT_EQ(s_mode(path()), 0700U);
  EXPECT_EQ(s_mode(path() + "/data.mdb"), 0640U);
  EXPECT_EQ(s_mode(path() + "/lock.mdb"), 0660U);
}

TEST_F(EnvironmentFilesTest, ExistingFilesKeepTheirModes) {
  addDomain("example.com", {});
  ASSERT_EQ(::chmod((path() + "/data.mdb").c_str(), 0600), 0);
  addDomain("example.org", {});
  EXPECT_EQ(s_mode(path() + "/data.mdb"), 0600U);
}

TEST_F(EnvironmentFilesTest, AFileInPlaceOfTheDirectoryIsAFailureForReadersAndWriters) {
  std::ofstream(path()) << "no directory";
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }),
              HasSubstr("Not a directory"));
  const std::string detail = failureOf([] { const Writer writer; });
  EXPECT_THAT(detail, HasSubstr("Not a directory"));
  EXPECT_THAT(detail, HasSubstr(path()));
}

TEST_F(EnvironmentFilesTest, ADirectoryInPlaceOfTheDataIsAFailure) {
  std::filesystem::create_directories(path() + "/data.mdb");
  std::ofstream(path() + "/lock.mdb") << "";
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }),
              HasSubstr("no regular file"));
}

TEST_F(EnvironmentFilesTest, AnEmptyDataFileIsAFailureForReadersAndStaysEmpty) {
  std::filesystem::create_directory(path());
  std::ofstream(path() + "/data.mdb") << "";
  std::ofstream(path() + "/lock.mdb") << "";
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }), HasSubstr("is empty"));
  EXPECT_EQ(std::filesystem::file_size(path() + "/data.mdb"), 0U);
  addDomain("example.com", {"bob"});
  EXPECT_EQ(usersOf("example.com").size(), 1U);
}

TEST_F(EnvironmentFilesTest, AMissingLockFileIsAFailureForReadersAndIsMadeByWriters) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  std::filesystem::remove(path() + "/lock.mdb");
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }),
              HasSubstr("lock.mdb is missing"));
  EXPECT_FALSE(std::filesystem::exists(path() + "/lock.mdb"));
  { const Writer writer; }
  EXPECT_EQ(usersOf("example.com").size(), 1U);
}

TEST_F(EnvironmentFilesTest, ADirectoryOutOfReachIsAFailure) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  ASSERT_EQ(::chmod(path().c_str(), 0), 0);
  EXPECT_EQ(inChildWithoutPrivileges([] {
              const std::string detail = failureOf([] { RefApsGwServerCache::instance(false); });
              EXPECT_THAT(detail, HasSubstr("Permission denied"));
              EXPECT_THAT(detail, HasSubstr("lock.mdb"));
              EXPECT_THAT(failureOf([] { const Writer writer; }), HasSubstr("Permission denied"));
            }),
            0);
  ASSERT_EQ(::chmod(path().c_str(), 0750), 0);
}

TEST_F(EnvironmentFilesTest, ALockFileThatCannotBeWrittenIsAFailureForReaders) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  ASSERT_EQ(::chmod(path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod((path() + "/data.mdb").c_str(), 0444), 0);
  ASSERT_EQ(::chmod((path() + "/lock.mdb").c_str(), 0444), 0);
  EXPECT_EQ(inChildWithoutPrivileges([] {
              EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }),
                          HasSubstr("read and write permission on lock.mdb"));
            }),
            0);
}

// LMDB fills a file that it finds empty. A reader that could write would do so to a copy that is
// just being made, and everything in it would be lost.
TEST_F(EnvironmentFilesTest, AReaderHasTheDataOpenForReadingOnly) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry, error) != path() + "/data.mdb") continue;
    const int descriptor = std::stoi(entry.path().filename());
    EXPECT_EQ(::fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDONLY);
    ++found;
  }
  EXPECT_GT(found, 0);
}

TEST_F(EnvironmentFilesTest, WhoReadsCannotWriteMeanwhile) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  EXPECT_THAT(failureOf([] { const Writer writer; }),
              HasSubstr("is open for reading in this process: release what reads it first"));
  EXPECT_EQ(usersOf("example.com").size(), 1U);
  cache = RefApsGwServerCache();
  addDomain("other.example", {});
  EXPECT_FALSE(RefApsGwServerCache::instance(false)->find("other.example").isNull());
}

TEST_F(EnvironmentFilesTest, WhoMayOnlyReadTheDataReadsAndCannotWrite) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  ASSERT_EQ(::chmod(path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod((path() + "/data.mdb").c_str(), 0444), 0);
  ASSERT_EQ(::chmod((path() + "/lock.mdb").c_str(), 0666), 0);
  EXPECT_EQ(inChildWithoutPrivileges([] { EXPECT_EQ(usersOf("example.com").size(), 1U); }), 0);
  EXPECT_EQ(inChildWithoutPrivileges([] {
              EXPECT_THAT(failureOf([] { const Writer writer; }),
                          HasSubstr("Cannot open for writing"));
            }),
            0);
}

TEST_F(EnvironmentFilesTest, ADirectoryThatCannotBeCreatedIsAFailure) {
  ASSERT_EQ(::chmod(directory().c_str(), 0555), 0);
  EXPECT_EQ(inChildWithoutPrivileges([] {
              EXPECT_THAT(failureOf([] { const Writer writer; }),
                          HasSubstr("Cannot create the directory"));
            }),
            0);
  ASSERT_EQ(::chmod(directory().c_str(), 0755), 0);
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(EnvironmentFilesTest, AnEmptySettingMeansTheDefaultDirectory) {
  ASSERT_EQ(::setenv("TSL_CMF_PATH", "", 1), 0);  // NOLINT(concurrency-mt-unsafe): one thread only
  // Whether something lies there is the host's affair; no record of it is read.
  try {
    RefApsGwServerCache::instance(false);
    EXPECT_TRUE(std::filesystem::exists("/var/lib/tsl/cmf/data.mdb"));
  } catch (const Exception& e) {
    EXPECT_THAT(e.stringParameter(), HasSubstr("/var/lib/tsl/cmf"));
  }
}

TEST_F(EnvironmentFilesTest, AMapSizeThatIsNoNumberIsAFailure) {
  addDomain("example.com", {"bob"});
  for (const char* size : {"0", "-1", "x", "12x", "16777217", "99999999999999999999", " 1"}) {
    setVariable("TSL_CMF_MAP_MIB", size);
    EXPECT_THAT(
        failureOf([] { RefApsGwServerCache::instance(true); }),
        HasSubstr(std::string("TSL_CMF_MAP_MIB must be a number from 1 to 16777216: ") + size))
        << size;
  }
  EXPECT_THAT(failureOf([] {
                setVariable("TSL_CMF_PATH", "/nowhere");
                RefApsGwServerCache::instance(false);
              }),
              HasSubstr("TSL_CMF_MAP_MIB"));
  setVariable("TSL_CMF_PATH", path());
  setVariable("TSL_CMF_MAP_MIB", "64");
  RefApsGwServerCache::instance(true);
  EXPECT_EQ(usersOf("example.com").size(), 1U);
}

}  // namespace
}  // namespace Tessel::CMF
