// A process at the other end of a socket: what it inherits, and how it ends.
#include "serve/image/HelperProcess.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

// All that the process sends.
std::string s_output(const HelperProcess& process) {
  std::string output;
  char buffer[1000];
  ssize_t size = 0;
  while ((size = recv(process.descriptor(), buffer, sizeof(buffer), 0)) > 0) {
    output.append(buffer, static_cast<std::size_t>(size));
  }
  return output;
}

TEST(HelperProcess, InheritsItsEndOfTheSocketAndNothingElse) {
  const int open = ::open("/dev/null", O_RDONLY);  // Not to be closed by exec.
  HelperProcess process({"/bin/sh", "-c", "exec >&0; ls /proc/$$/fd; exit 0"});
  EXPECT_EQ(s_output(process), "0\n1\n2\n");
  EXPECT_EQ(process.end(), 0);
  close(open);
}

TEST(HelperProcess, ReadsWhatIsSentToIt) {
  HelperProcess process({"/bin/sh", "-c", "read line; echo got $line >&0; exit 3"});
  EXPECT_EQ(send(process.descriptor(), "this\n", 5, 0), 5);
  EXPECT_EQ(s_output(process), "got this\n");
  EXPECT_EQ(WEXITSTATUS(process.end()), 3);
}

TEST(HelperProcess, IsKilledWhenItDoesNotEnd) {
  HelperProcess process({"/bin/sleep", "100"});
  const int status = process.end();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(HelperProcess, EndsWithTheObjectAlsoWhenItIsStopped) {
  pid_t pid = 0;
  {
    const HelperProcess process({"/bin/sleep", "100"});
    pid = process.pid();
    kill(pid, SIGSTOP);
  }
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(HelperProcess, AProgramThatIsNotThereIsReportedAndLeavesNothingOpen) {
  const auto open = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = open();
  EXPECT_THROW(HelperProcess process({"/nonexistent/program"}), std::system_error);
  EXPECT_EQ(open(), before);
}

TEST(HelperProcess, AShortageOfDescriptorsIsReported) {
  const auto start = [] {
    const DescriptorShortage shortage;
    HelperProcess process({"/bin/true"});
  };
  EXPECT_THAT(start, testing::ThrowsMessage<std::system_error>("socketpair: Too many open files"));
}

}  // namespace
}  // namespace Tessel::Serve
