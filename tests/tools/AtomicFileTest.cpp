// Tests of files that are replaced as a whole.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "disk/AtomicFile.h"

namespace Tessel::Tool {
namespace {

class AtomicFileTest : public testing::Test {
 protected:
  AtomicFileTest() {
    char directory[] = "/tmp/tsl-atomic-XXXXXX";
    m_directory = mkdtemp(directory);
    std::ofstream(path()) << "old";
  }
  ~AtomicFileTest() override { std::filesystem::remove_all(m_directory); }

  [[nodiscard]] std::string path() const { return m_directory + "/file"; }
  [[nodiscard]] std::string temporary() const { return m_directory + "/file.new"; }
  [[nodiscard]] std::string content() const {
    std::ifstream file(path());
    return {std::istreambuf_iterator<char>(file), {}};
  }
  [[nodiscard]] bool isAlone() const { return !std::filesystem::exists(temporary()); }

  std::string m_directory;
};

TEST_F(AtomicFileTest, TheNewContentShowsAtTheEndAndNotBefore) {
  const std::string large(200000, 'x');
  AtomicFile file(path(), temporary(), 0600);
  file.write("new");
  file.write(large);
  file.sync();
  EXPECT_EQ(content(), "old");
  file.finish();
  EXPECT_EQ(content(), "new" + large);
  EXPECT_TRUE(isAlone());
  struct stat status {};
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(AtomicFileTest, WhatIsNotFinishedLeavesNothing) {
  { AtomicFile(path(), temporary(), 0600).write("new"); }
  EXPECT_EQ(content(), "old");
  EXPECT_TRUE(isAlone());
}

TEST_F(AtomicFileTest, ALeftoverIsReplacedAndALinkIsNotFollowed) {
  const std::string other = m_directory + "/other";
  std::ofstream(other) << "other";
  std::filesystem::create_symlink(other, temporary());
  AtomicFile file(path(), temporary(), 0600);
  file.write("new");
  file.finish();
  EXPECT_EQ(content(), "new");
  EXPECT_EQ(std::filesystem::file_size(other), 5U);
}

TEST_F(AtomicFileTest, AFailureIsReportedAndTheFileStays) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small{1024, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  {
    AtomicFile file(path(), temporary(), 0600);
    file.write(std::string(2000, 'x'));
    try {
      file.finish();
      ADD_FAILURE() << "No exception";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::file_too_large);
    }
  }
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(content(), "old");
  EXPECT_TRUE(isAlone());
}

TEST_F(AtomicFileTest, ADirectoryThatIsNotThereIsReported) {
  EXPECT_THROW(AtomicFile(m_directory + "/none/file", m_directory + "/none/new", 0600),
               std::system_error);
  AtomicFile file(m_directory + "/none/file", temporary(), 0600);
  EXPECT_THROW(file.finish(), std::system_error);
}

TEST(DirectoryOf, IsThatOfTheFile) {
  EXPECT_EQ(directoryOf("/a/b"), "/a");
  EXPECT_EQ(directoryOf("a/b"), "a");
  EXPECT_EQ(directoryOf("b"), ".");
  EXPECT_EQ(directoryOf("/b"), "/");
}

}  // namespace
}  // namespace Tessel::Tool
