// Images on disk: they come back as they were, and what is not whole is refused.
#include "serve/image/SnapshotFile.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/crc.hpp>

#include "support/ScratchFile.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::minutes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// Bytes of the time at the end of a file, with its checksum.
constexpr std::size_t s_stampSize = 12;

TableImage s_aliases(const Rows& rows) {
  return {TableKind::Alias, sourceOf(rows)};
}

std::string s_content(const std::string& path) {
  std::ostringstream all;
  all << std::ifstream(path, std::ios::binary).rdbuf();
  return all.str();
}

void s_write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string s_checksum(const std::string& bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  const std::uint32_t sum = crc.checksum();
  return {reinterpret_cast<const char*>(&sum), sizeof(sum)};
}

// `content` with the checksums that fit it.
std::string s_withChecksums(std::string content) {
  const std::size_t stamp = content.size() - s_stampSize;
  content.replace(stamp - 4, 4, s_checksum(content.substr(0, stamp - 4)));
  return content.replace(stamp + 8, 4,
                         s_checksum(content.substr(stamp - 12, 8) + content.substr(stamp, 8)));
}

class SnapshotFile : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const {
    return m_scratch.directory() + "/" + name;
  }

  [[nodiscard]] ImagePointer load(const std::string& sqlName,
                                  TableKind kind = TableKind::Alias) const {
    return m_directory.load(sqlName, kind).image;
  }

  // Why the table's file cannot be used; empty when it can.
  [[nodiscard]] std::string refusal(const std::string& sqlName) const {
    try {
      static_cast<void>(load(sqlName));
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  Testing::ScratchFile m_scratch;
  const SnapshotDirectory m_directory{m_scratch.directory()};
};

TEST_F(SnapshotFile, AFileBeginsWithItsFormatAndItsTable) {
  m_directory.save("alias", s_aliases({}));
  EXPECT_THAT(s_content(path("alias.image")), StartsWith("tsl-address-map image 2\nalias\n"));
}

TEST_F(SnapshotFile, AnImageComesBackAsItWas) {
  const Rows rows = {{"a@d", "b@d,c@d"}, {"J\u00f6rg@b\u00fccher.example", "\"x y\"@d"}};
  m_directory.save("alias", s_aliases(rows));
  const ImagePointer image = load("alias");
  ASSERT_EQ(image->rows().size(), 2U);
  EXPECT_EQ(image->rows().first(1), rows[1].first);
  EXPECT_EQ(image->rows().second(0), "b@d,c@d");
  EXPECT_EQ(image->alias().expand("a@d").addresses.size(), 2U);
}

TEST_F(SnapshotFile, AMaskTableComesBackWithItsWildcards) {
  using Direction = MaskImage::Direction;
  const TableImage mask(
      TableKind::Mask,
      sourceOf(
          {{"*@in", "*@one"}, {"ann@in", "a@out"}, {"no address", "b@out"}, {"*@in", "*@two"}}));
  m_directory.save("mask_x", mask);
  const ImagePointer image = load("mask_x", TableKind::Mask);
  EXPECT_EQ(image->mask().find(Direction::ToPublic, "ann@in"), "a@out");
  EXPECT_EQ(image->mask().findDomain(Direction::ToPublic, "in"), "two");
  EXPECT_TRUE(image->mask().isBroken(Direction::ToPrivate, "b@out"));
}

TEST_F(SnapshotFile, ATableWithoutRowsHasAFileToo) {
  m_directory.save("alias", s_aliases({}));
  EXPECT_EQ(load("alias")->rows().size(), 0U);
}

TEST_F(SnapshotFile, AddressesOfBrokenRowsStayBroken) {
  m_directory.save("alias", s_aliases({{"good@d", "x@d"},
                                       {"bad@d", "no address"},
                                       {"none@d", ""},
                                       {"\"a@b\"@d", "no address"},
                                       {"\"\\\"\"@d", "no address"},
                                       {"GOOD@d", "y@d"}}));
  const ImagePointer image = load("alias");
  EXPECT_EQ(image->rows().size(), 1U);
  EXPECT_EQ(image->brokenRows().count(), 5U);
  for (const char* key : {"bad@d", "none@d", "a@b@d", "\"@d"}) {
    EXPECT_EQ(image->alias().expand(key).kind, Expansion::Kind::Broken) << key;
  }
  EXPECT_EQ(image->alias().expand("good@d").kind, Expansion::Kind::Found);
}

TEST_F(SnapshotFile, OnlyItsOwnerMayReadAFile) {
  const mode_t before = umask(0777);
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}}));
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(path("alias.image").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(SnapshotFile, TheDirectoryTellsWhichTablesHaveAFile) {
  EXPECT_THAT(m_directory.names(), IsEmpty());
  m_directory.save("mask", TableImage(TableKind::Mask, sourceOf({})));
  m_directory.save("alias_x", s_aliases({}));
  s_write(path("alias.image.new"), "half");
  s_write(path("README"), "");
  EXPECT_THAT(m_directory.names(), ElementsAre("alias_x", "mask"));
  const SnapshotDirectory none("");
  EXPECT_FALSE(none.isWanted());
  EXPECT_THAT(none.names(), IsEmpty());
  EXPECT_THROW(static_cast<void>(SnapshotDirectory("/nonexistent").names()), std::system_error);
}

TEST_F(SnapshotFile, AFileIsReplacedByAnother) {
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}}));
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}, {"b@d", "c@d"}}));
  EXPECT_EQ(load("alias")->rows().size(), 2U);
  EXPECT_FALSE(fs::exists(path("alias.image.new")));
}

TEST_F(SnapshotFile, WhatIsNotThereCannotBeRead) {
  EXPECT_THROW(static_cast<void>(load("alias")), std::system_error);
  EXPECT_FALSE(m_directory.confirm("alias", {}));
}

TEST_F(SnapshotFile, AFileThatIsCutOffAnywhereIsRefused) {
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}, {"bad@d", ""}}));
  const std::string whole = s_content(path("alias.image"));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    s_write(path("alias.image"), whole.substr(0, size));
    const bool hasAnEnd = size >= s_stampSize + 20;
    EXPECT_EQ(refusal("alias"), hasAnEnd ? "the file is damaged" : "the file is cut off") << size;
  }
}

TEST_F(SnapshotFile, AFileWithAnyDamagedByteIsRefused) {
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}}));
  const std::string whole = s_content(path("alias.image"));
  for (std::size_t at = 0; at < whole.size(); ++at) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    s_write(path("alias.image"), damaged);
    EXPECT_EQ(refusal("alias"), "the file is damaged") << at;
  }
  s_write(path("alias.image"), whole + "x");
  EXPECT_EQ(refusal("alias"), "the file is damaged");
}

TEST_F(SnapshotFile, AFileOfAnotherTableIsRefused) {
  m_directory.save("alias_other", s_aliases({{"a@d", "b@d"}}));
  fs::rename(path("alias_other.image"), path("alias.image"));
  EXPECT_EQ(refusal("alias"), "the file is that of another table");
}

TEST_F(SnapshotFile, AFileOfAnotherFormatIsRefused) {
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}}));
  std::string content = s_content(path("alias.image"));
  content.replace(content.find("image 2"), 7, "image 9");
  s_write(path("alias.image"), s_withChecksums(content));
  EXPECT_EQ(refusal("alias"), "the file has another format");
}

TEST_F(SnapshotFile, AFileWithMoreThanItsRowsIsRefused) {
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}, {"b@d", "c@d"}}));
  std::string content = s_content(path("alias.image"));
  s_write(path("alias.image"), s_withChecksums(content));
  EXPECT_EQ(refusal("alias"), "");
  // The number of rows, before the random number and the checksum.
  char& count = content[content.size() - s_stampSize - 20];
  ASSERT_EQ(count, 2);
  count = 1;
  s_write(path("alias.image"), s_withChecksums(content));
  EXPECT_EQ(refusal("alias"), "the file is damaged");
}

TEST_F(SnapshotFile, ATimeBefore1970IsRefused) {
  m_directory.save("alias", s_aliases({}));
  std::string content = s_content(path("alias.image"));
  content.replace(content.size() - s_stampSize, 8, std::string(7, '\0') + '\x80');
  s_write(path("alias.image"), s_withChecksums(content));
  EXPECT_EQ(refusal("alias"), "the file is damaged");
}

TEST_F(SnapshotFile, TheFileKnowsWhenTheTableWasLastLikeIt) {
  const Clock::time_point now = Clock::now();
  const SnapshotId id = m_directory.save("alias", s_aliases({}), now - hours(3));
  const auto age = [&] { return now - m_directory.load("alias", TableKind::Alias).confirmed; };
  EXPECT_GT(age(), hours(3) - minutes(1));
  EXPECT_LT(age(), hours(3) + minutes(1));
  // Copies and backups have times of their own.
  fs::last_write_time(path("alias.image"), fs::file_time_type::clock::now() + hours(1));
  EXPECT_GT(age(), hours(3) - minutes(1));
  EXPECT_TRUE(m_directory.confirm("alias", id, now - hours(1)));
  EXPECT_LT(age(), hours(1) + minutes(1));
  EXPECT_GT(age(), hours(1) - minutes(1));
}

TEST_F(SnapshotFile, ATimeInTheFutureCountsAsNow) {
  m_directory.save("alias", s_aliases({}), Clock::now() + hours(3));
  const Clock::time_point before = Clock::now();
  const Clock::time_point confirmed = m_directory.load("alias", TableKind::Alias).confirmed;
  EXPECT_GE(confirmed, before);
  EXPECT_LE(confirmed, Clock::now());
}

TEST_F(SnapshotFile, AnotherFileInItsPlaceIsNotConfirmed) {
  const Clock::time_point old = Clock::now() - hours(3);
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}}), old);
  fs::copy_file(path("alias.image"), path("backup"));
  const SnapshotId id = m_directory.save("alias", s_aliases({{"a@d", "c@d"}}));
  // By another file, and by other content in the same one.
  for (const bool isRenamed : {false, true}) {
    if (isRenamed) fs::remove(path("alias.image"));
    s_write(path("alias.image"), s_content(path("backup")));
    EXPECT_FALSE(m_directory.confirm("alias", id)) << isRenamed;
    EXPECT_LE(m_directory.load("alias", TableKind::Alias).confirmed, old + minutes(1));
  }
  const SnapshotId second = m_directory.save("alias", s_aliases({}));
  fs::copy_file(path("alias.image"), path("copy"));
  EXPECT_TRUE(m_directory.confirm("alias", second));
  fs::rename(path("copy"), path("alias.image"));
  EXPECT_FALSE(m_directory.confirm("alias", second));
  fs::remove(path("alias.image"));
  EXPECT_FALSE(m_directory.confirm("alias", second));
}

TEST_F(SnapshotFile, WhatIsNotAPlainFileIsRefusedAndNotWaitedFor) {
  ASSERT_EQ(mkfifo(path("alias.image").c_str(), 0600), 0);
  EXPECT_THAT(refusal("alias"), HasSubstr("is not a regular file"));
  EXPECT_FALSE(m_directory.confirm("alias", {}));
  m_directory.save("alias", s_aliases({}));
  EXPECT_EQ(refusal("alias"), "");
  fs::rename(path("alias.image"), path("elsewhere"));
  fs::create_symlink(path("elsewhere"), path("alias.image"));
  EXPECT_NE(refusal("alias"), "");
  m_directory.save("alias", s_aliases({}));
  EXPECT_FALSE(fs::is_symlink(path("alias.image")));
}

TEST_F(SnapshotFile, FilesAndDirectoriesThatOthersMayWriteOrOwnAreRefused) {
  m_directory.save("alias", s_aliases({}));
  chmod(path("alias.image").c_str(), 0620);
  EXPECT_EQ(refusal("alias"), path("alias.image") + " can be written by other users");
  m_directory.save("alias", s_aliases({}));
  EXPECT_EQ(refusal("alias"), "");
  chmod(m_scratch.directory().c_str(), 0777);
  EXPECT_THAT(refusal("alias"), HasSubstr("can be written by other users"));
  EXPECT_THROW(m_directory.save("alias", s_aliases({})), std::runtime_error);
  EXPECT_THROW(static_cast<void>(m_directory.names()), std::runtime_error);
  // Only root can give files away.
  if (geteuid() != 0) return;
  chmod(m_scratch.directory().c_str(), 0700);
  ASSERT_EQ(chown(path("alias.image").c_str(), 1, 1), 0);
  EXPECT_EQ(refusal("alias"), path("alias.image") + " belongs to another user");
  m_directory.save("alias", s_aliases({}));
  EXPECT_EQ(refusal("alias"), "");
  ASSERT_EQ(chown(m_scratch.directory().c_str(), 1, 1), 0);
  EXPECT_EQ(refusal("alias"), m_scratch.directory() + " belongs to another user");
}

TEST_F(SnapshotFile, AFileThatCannotBeWrittenLeavesTheOldOne) {
  m_directory.save("alias", s_aliases({{"a@d", "b@d"}}));
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit = before;
  limit.rlim_cur = 10000;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  Rows rows;
  for (int i = 0; i < 1000; ++i) rows.emplace_back("a" + std::to_string(i) + "@d", "b@d");
  EXPECT_THROW(m_directory.save("alias", s_aliases(rows)), std::system_error);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(load("alias")->rows().size(), 1U);
  EXPECT_FALSE(fs::exists(path("alias.image.new")));
}

TEST_F(SnapshotFile, ADirectoryThatIsGoneIsAFailure) {
  const SnapshotDirectory gone(m_scratch.directory() + "/gone");
  EXPECT_THROW(gone.save("alias", s_aliases({})), std::system_error);
}

}  // namespace
}  // namespace Tessel::Serve
