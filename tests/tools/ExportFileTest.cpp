// Tests of what an export writes to: files, links to files, pipes and devices.
#include "files/ExportFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <iterator>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failure/Failure.h"
#include "support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

using testing::HasSubstr;
using Testing::ScratchFile;
using testing::StartsWith;

// Files in the directory of `file`.
std::ptrdiff_t s_files(const ScratchFile& file) {
  return std::distance(std::filesystem::directory_iterator(file.directory()), {});
}

std::string s_failure(const std::string& path) {
  try {
    ExportFile(path).write("x");
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::OutputFailed);
    EXPECT_EQ(failure.subject(), "writing " + path);
    return failure.why() + "; " + failure.hint();
  }
  return "none";
}

TEST(ExportFile, AFileIsReplacedAtTheEndAndKeepsItsPermissions) {
  const ScratchFile scratch;
  scratch.write("old");
  ASSERT_EQ(chmod(scratch.path().c_str(), 0640), 0);
  ExportFile file(scratch.path());
  EXPECT_FALSE(file.isDirect());
  file.write("new");
  EXPECT_EQ(scratch.text(), "old");
  file.finish();
  EXPECT_EQ(scratch.text(), "new");
  EXPECT_EQ(std::filesystem::status(scratch.path()).permissions(), std::filesystem::perms(0640));
  EXPECT_EQ(s_files(scratch), 1);
}

TEST(ExportFile, WhatIsNotFinishedLeavesNothing) {
  const ScratchFile scratch;
  { ExportFile(scratch.path()).write("new"); }
  EXPECT_EQ(s_files(scratch), 0);
}

TEST(ExportFile, ALinkStaysALinkAndItsFileIsReplaced) {
  const ScratchFile scratch;
  scratch.write("old");
  const std::string link = scratch.directory() + "/link";
  std::filesystem::create_symlink("table", link);
  ExportFile file(link);
  file.write("new");
  file.finish();
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_FALSE(std::filesystem::is_symlink(scratch.path()));
  EXPECT_EQ(scratch.text(), "new");
}

TEST(ExportFile, ALinkToNothingStaysALinkAndItsFileIsMade) {
  const ScratchFile scratch;
  const std::string link = scratch.directory() + "/link";
  std::filesystem::create_symlink("other", scratch.directory() + "/chain");
  std::filesystem::create_symlink("chain", link);
  ExportFile file(link);
  file.write("new");
  file.finish();
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_TRUE(std::filesystem::is_symlink(scratch.directory() + "/chain"));
  EXPECT_TRUE(std::filesystem::is_regular_file(scratch.directory() + "/other"));
  EXPECT_EQ(s_files(scratch), 3);
}

TEST(ExportFile, APipeIsWrittenDirectly) {
  const ScratchFile scratch;
  scratch.makePipe();
  const int reader = open(scratch.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  ExportFile file(scratch.path());
  EXPECT_TRUE(file.isDirect());
  file.write("ab");
  file.write("c");
  file.finish();
  std::array<char, 8> read{};
  EXPECT_EQ(::read(reader, read.data(), read.size()), 3);
  EXPECT_STREQ(read.data(), "abc");
  close(reader);
  EXPECT_TRUE(std::filesystem::is_fifo(scratch.path()));
}

TEST(ExportFile, AFullDeviceIsReported) {
  ExportFile file("/dev/full");
  file.write("x");
  try {
    file.finish();
    ADD_FAILURE() << "no failure";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::OutputFailed);
    EXPECT_EQ(failure.why(), "No space left on device");
    EXPECT_EQ(failure.hint(), "what was written is incomplete");
  }
}

TEST(ExportFile, WhatCannotBeWrittenIsReportedAtOnce) {
  const ScratchFile scratch;
  EXPECT_THAT(s_failure(scratch.directory() + "/none/table"),
              StartsWith("No such file or directory; the file is as it was"));
  EXPECT_THAT(s_failure(scratch.directory()), HasSubstr("Is a directory"));
  scratch.write("old");
  EXPECT_THAT(s_failure(scratch.path() + "/table"), HasSubstr("Not a directory"));
  EXPECT_EQ(scratch.text(), "old");
}

}  // namespace
}  // namespace Tessel::Tool
