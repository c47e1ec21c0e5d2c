// The log names the right that is missing, who lacks it, and the way to grant it.
#include "serve/base/AccessRights.h"

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// Ids that nobody has: names would differ from host to host.
constexpr uid_t s_otherUser = 1234567;
constexpr gid_t s_otherGroup = 2345678;
constexpr gid_t s_readers = 3456789;

class MissingRight : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(geteuid(), 0U) << "this needs root, who may become another user";
    allow(m_directory, 0755);
    allow(m_files.data(), 0640);
    allow(m_files.lock(), 0660);
  }

  // The files belong to root and the group `group`.
  static void allow(const std::string& path, mode_t mode, gid_t group = s_readers) {
    EXPECT_EQ(chown(path.c_str(), 0, group), 0);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
  }

  // The files cannot be written in the mount namespace of this process.
  [[nodiscard]] bool makeReadOnly() const {
    const char* const directory = m_directory.c_str();
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(directory, directory, nullptr, MS_BIND, nullptr) == 0 &&
           mount(nullptr, directory, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
  }

  // What is reported to another user, who is in the group `group`.
  [[nodiscard]] std::string reported(gid_t group = s_otherGroup, bool isReadOnly = false) const {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    const pid_t child = fork();
    if (child == 0) {
      const bool isOther = (!isReadOnly || makeReadOnly()) && setgroups(0, nullptr) == 0 &&
                           setgid(group) == 0 && setuid(s_otherUser) == 0;
      const std::string text = isOther ? missingRight(m_directory) : "no other user";
      const bool isWritten = write(ends[1], text.data(), text.size()) != -1;
      _exit(isWritten ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    close(ends[1]);
    std::string text(4096, '\0');
    text.resize(static_cast<std::size_t>(read(ends[0], text.data(), text.size())));
    close(ends[0]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    return text;
  }

  const ServedFiles m_files;
  const std::string m_directory = m_files.data().substr(0, m_files.data().rfind('/'));
};

TEST_F(MissingRight, IsNoneForTheGroupOfTheFiles) {
  EXPECT_EQ(reported(s_readers), "");
}

TEST_F(MissingRight, OfAGroupThatHasItIsGrantedByMembership) {
  const std::string got = reported();
  EXPECT_THAT(got, StartsWith("the user 1234567 (groups: 2345678) may not read " + m_files.data() +
                              " (root:3456789, mode 0640); "));
  EXPECT_THAT(got, EndsWith("; add the user to the group 3456789 and restart the service"));
}

TEST_F(MissingRight, IsGrantedToAMemberWithoutAnotherGroup) {
  allow(m_files.lock(), 0640);
  EXPECT_THAT(reported(s_readers),
              EndsWith("may not read and write " + m_files.lock() +
                       " (root:3456789, mode 0640); to allow it: chmod g+rw " + m_files.lock()));
}

TEST_F(MissingRight, IsNeverGrantedByTheGroupOfRoot) {
  allow(m_directory, 0750, 0);
  EXPECT_THAT(reported(), HasSubstr("may not enter " + m_directory + " (root:root, mode 0750); "));
  EXPECT_THAT(reported(), EndsWith("; to allow it: chgrp 2345678 " + m_directory +
                                   " && chmod g+x " + m_directory));
}

TEST_F(MissingRight, OfAReadOnlyDirectoryIsGivenByTheUnit) {
  EXPECT_EQ(reported(s_readers, true),
            "the user 1234567 (groups: 3456789) may not read and write " + m_files.lock() +
                ", which is read-only for the service; name its directory in ReadWritePaths= of"
                " the unit");
}

TEST_F(MissingRight, IsNoneWhereAFileIsNotThere) {
  std::filesystem::remove(m_files.data());
  EXPECT_EQ(reported(), "");
}

}  // namespace
}  // namespace Tessel::Serve
