// Sockets to listen on: the file of a Unix socket is the service's own, and nobody else's is
// touched.
#include "serve/socket/ListenSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failure/Failure.h"
#include "support/ScratchFile.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

namespace fs = std::filesystem;

// A socket of the tests themselves.
class PlainSocket {
 public:
  explicit PlainSocket(int type, int family = AF_UNIX)
      : m_descriptor(socket(family, type | SOCK_CLOEXEC, 0)) {}
  ~PlainSocket() { close(m_descriptor); }
  PlainSocket(const PlainSocket&) = delete;
  PlainSocket& operator=(const PlainSocket&) = delete;

  [[nodiscard]] int descriptor() const { return m_descriptor; }

  [[nodiscard]] bool bindTo(const std::string& path) const {
    const sockaddr_un address = addressOf(path);
    return bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  [[nodiscard]] bool connectTo(const std::string& path) const {
    const sockaddr_un address = addressOf(path);
    return connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }

 private:
  static sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
  }

  int m_descriptor;
};

bool s_canConnect(const std::string& path) {
  return PlainSocket(SOCK_STREAM).connectTo(path);
}

class ListenSocketTest : public testing::Test {
 protected:
  [[nodiscard]] ListenAddress address() const {
    ListenAddress address;
    address.path = path();
    return address;
  }
  [[nodiscard]] std::string path() const { return m_scratch.directory() + "/socketmap"; }
  [[nodiscard]] std::size_t files() const {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(m_scratch.directory())) {
      count += entry.exists() || entry.is_symlink() ? 1U : 0U;
    }
    return count;
  }
  [[nodiscard]] struct stat status() const {
    struct stat status {};
    EXPECT_EQ(lstat(path().c_str(), &status), 0);
    return status;
  }

  // Why there is no listening on `address`; empty when there is.
  static std::string refusal(const ListenAddress& address) { return refuse(address).why(); }
  // The same with what to do.
  static std::string advice(const ListenAddress& address) {
    const Tool::Failure failure = refuse(address);
    const bool isUnix = address.kind == ListenAddress::Kind::Unix;
    EXPECT_EQ(failure.subject(),
              "listening on " + (isUnix ? address.path : address.host + " port 7321"));
    return failure.why() + "; " + failure.hint();
  }

  Testing::ScratchFile m_scratch;

 private:
  static Tool::Failure refuse(const ListenAddress& address) {
    try {
      const ListenSocket socket(address);
    } catch (const Tool::Failure& failure) {
      EXPECT_EQ(failure.code(), Tool::ExitCode::Configuration);
      return failure;
    }
    return {Tool::ExitCode::Done, "", "", ""};
  }
};

TEST_F(ListenSocketTest, AUnixSocketCanBeConnectedToAndGoesWithItsObject) {
  {
    const ListenSocket socket(address());
    EXPECT_TRUE(s_canConnect(path()));
    EXPECT_EQ(socket.name(), path());
    EXPECT_EQ(socket.protocol(), Protocol::Netstrings);
    EXPECT_EQ(fcntl(socket.descriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(socket.descriptor(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(files(), 1U);
  }
  EXPECT_EQ(files(), 0U);
}

TEST_F(ListenSocketTest, TheFileHasItsMode) {
  const mode_t before = umask(0);
  {
    const ListenSocket socket(address());
    EXPECT_EQ(status().st_mode & 07777U, 0660U);
  }
  ListenAddress open = address();
  open.mode = 0606;
  {
    const ListenSocket socket(open);
    EXPECT_EQ(status().st_mode & 07777U, 0606U);
  }
  EXPECT_EQ(umask(before), 0U);
}

TEST_F(ListenSocketTest, TheFileHasItsGroup) {
  // Root may give it to any group, others to their own.
  const group* const group = getgrgid(getuid() == 0 ? 1 : getgid());
  ASSERT_NE(group, nullptr);
  const gid_t wanted = group->gr_gid;
  ListenAddress grouped = address();
  grouped.group = group->gr_name;
  const ListenSocket socket(grouped);
  EXPECT_EQ(status().st_gid, wanted);
}

// Runs `task` in a process of a user without rights, for root one of the group `member` only; true
// when it returned true.
bool s_withoutRights(gid_t member, const std::function<bool()>& task) {
  constexpr id_t nobody = 65534;
  const pid_t child = fork();
  if (child == 0) {
    const bool isRight =
        getuid() != 0 || (setgroups(1, &member) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0);
    _exit(isRight && task() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0;
}

TEST_F(ListenSocketTest, AGroupOfOthersIsRefused) {
  const group* const group = getgrnam("mail");
  ASSERT_NE(group, nullptr);
  const gid_t mail = group->gr_gid;
  ListenAddress grouped = address();
  grouped.group = "mail";
  fs::permissions(m_scratch.directory(), fs::perms::all);
  const std::string why =
      "the group cannot be set: Operation not permitted; the service's user must be a member of it";
  EXPECT_TRUE(s_withoutRights(1, [&] { return advice(grouped) == why && files() == 0; }));
  EXPECT_TRUE(s_withoutRights(1, [&] {
    try {
      ListenSocket::check(grouped);
    } catch (const Tool::Failure& failure) {
      return failure.why() + "; " + failure.hint() == why;
    }
    return false;
  }));
  if (getuid() != 0) return;  // Only root can be another user.
  EXPECT_TRUE(s_withoutRights(mail, [&] {
    ListenSocket::check(grouped);
    return refusal(grouped).empty();
  }));
  ListenSocket::check(grouped);
}

TEST_F(ListenSocketTest, AGroupThatIsNotThereIsRefusedAndLeavesNothing) {
  ListenAddress grouped = address();
  grouped.group = "no-such-group";
  const int next = dup(STDIN_FILENO);
  close(next);
  EXPECT_EQ(advice(grouped), "there is no group 'no-such-group'; give one of 'getent group'");
  EXPECT_EQ(files(), 0U);
  const int after = dup(STDIN_FILENO);
  close(after);
  EXPECT_EQ(after, next) << "a descriptor was left open";
}

TEST_F(ListenSocketTest, WhatAServiceLeftThatCrashedWhileItStartedIsReplaced) {
  const PlainSocket crashed(SOCK_STREAM);
  ASSERT_TRUE(crashed.bindTo(m_scratch.directory() + "/.tsl" + std::to_string(getpid())));
  const ListenSocket socket(address());
  EXPECT_TRUE(s_canConnect(path()));
  EXPECT_EQ(files(), 1U);
}

TEST_F(ListenSocketTest, TheSocketOfAServiceThatCrashedIsReplaced) {
  {
    const PlainSocket crashed(SOCK_STREAM);
    ASSERT_TRUE(crashed.bindTo(path()));
  }
  EXPECT_EQ(files(), 1U);
  const ListenSocket socket(address());
  EXPECT_TRUE(s_canConnect(path()));
}

TEST_F(ListenSocketTest, ASocketThatIsInUseIsRefused) {
  const ListenSocket first(address());
  EXPECT_EQ(advice(address()),
            "another service listens there; stop it first, or give another path");
  EXPECT_TRUE(s_canConnect(path()));
  EXPECT_EQ(files(), 1U);
}

TEST_F(ListenSocketTest, ASocketWithAFullQueueIsInUse) {
  const PlainSocket other(SOCK_STREAM);
  ASSERT_TRUE(other.bindTo(path()));
  ASSERT_EQ(listen(other.descriptor(), 0), 0);
  const PlainSocket waiting(SOCK_STREAM);
  ASSERT_TRUE(waiting.connectTo(path()));
  EXPECT_EQ(refusal(address()), "another service listens there");
}

TEST_F(ListenSocketTest, ASocketForDatagramsIsInUse) {
  const PlainSocket other(SOCK_DGRAM);
  ASSERT_TRUE(other.bindTo(path()));
  EXPECT_EQ(refusal(address()), "another service listens there");
  EXPECT_TRUE(PlainSocket(SOCK_DGRAM).connectTo(path()));
}

TEST_F(ListenSocketTest, AnyOtherFileIsRefusedAndStays) {
  std::ofstream(path()) << "precious";
  EXPECT_EQ(advice(address()), "there is another file; give another path, or remove the file");
  EXPECT_EQ(fs::file_size(path()), 8U);
  fs::remove(path());
  fs::create_directory(path());
  EXPECT_EQ(refusal(address()), "there is another file");
  fs::remove(path());
  fs::create_symlink(m_scratch.directory() + "/elsewhere", path());
  EXPECT_EQ(refusal(address()), "there is another file");
  EXPECT_EQ(files(), 1U);
}

TEST_F(ListenSocketTest, AFileThatAnotherServicePutThereStays) {
  auto first = std::make_unique<ListenSocket>(address());
  fs::remove(path());
  const ListenSocket second(address());
  first.reset();
  EXPECT_TRUE(s_canConnect(path()));
  EXPECT_EQ(files(), 1U);
}

// Runs `task` in `count` processes at the same time; the exit statuses of all.
std::vector<int> s_inProcesses(int count, const std::function<int()>& task) {
  std::array<int, 2> gate{};
  if (pipe(gate.data()) != 0) return {};
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      close(gate[1]);
      char byte = 0;
      static_cast<void>(!read(gate[0], &byte, 1));  // Until the other end is closed.
      _exit(task());
    }
    children.push_back(child);
  }
  close(gate[0]);
  close(gate[1]);
  std::vector<int> statuses;
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    statuses.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  }
  return statuses;
}

TEST_F(ListenSocketTest, OfServicesThatStartAtTheSameTimeOneListens) {
  constexpr int count = 6;
  void* const shared =
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* const tried = new (shared) std::atomic<int>;
  for (int round = 0; round < 30; ++round) {
    *tried = 0;
    const auto statuses = s_inProcesses(count, [&] {
      int listening = 0;
      try {
        // Its end is that of a process that is killed: the file stays.
        new ListenSocket(address());
        listening = 1;
      } catch (const Tool::Failure&) {
        listening = 0;
      }
      // It must listen until all others have tried.
      ++*tried;
      while (*tried < count) std::this_thread::yield();
      return listening;
    });
    EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 1), 1) << round;
  }
  munmap(shared, sizeof(int));
  EXPECT_EQ(files(), 1U);
}

TEST_F(ListenSocketTest, AnEndAndAStartAtTheSameTimeLeaveTheSocketOfTheStart) {
  for (int round = 0; round < 100; ++round) {
    auto first = std::make_unique<ListenSocket>(address());
    std::unique_ptr<ListenSocket> second;
    std::thread start([&] {
      while (second == nullptr) {
        try {
          second = std::make_unique<ListenSocket>(address());
        } catch (const Tool::Failure&) {
          std::this_thread::yield();
        }
      }
    });
    first.reset();
    start.join();
    ASSERT_TRUE(s_canConnect(path())) << round;
  }
  EXPECT_EQ(files(), 0U);
}

TEST_F(ListenSocketTest, AServiceThatStartsForeverIsSoonWaitedForNoMore) {
  const std::string lock = path() + ".lock";
  const int held = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  EXPECT_EQ(advice(address()), "another service is starting or ending there; stop it first");
  close(held);
}

TEST_F(ListenSocketTest, AServiceWaitsForAnotherThatIsStarting) {
  const std::string lock = path() + ".lock";
  const int held = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  std::atomic<bool> isReleased = false;
  std::thread start([&] {
    const ListenSocket socket(address());
    EXPECT_TRUE(isReleased);
    EXPECT_FALSE(fs::exists(lock));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  isReleased = true;
  close(held);
  start.join();
  EXPECT_EQ(files(), 0U);
}

// Otherwise it might take the file of the other for its own.
TEST_F(ListenSocketTest, AnEndWaitsForAnotherThatIsStarting) {
  auto first = std::make_unique<ListenSocket>(address());
  const std::string lock = path() + ".lock";
  const int held = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  std::thread end([&] { first.reset(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(fs::exists(path()));
  close(held);
  end.join();
  EXPECT_EQ(files(), 0U);
}

TEST_F(ListenSocketTest, ADirectoryThatIsNotThereIsRefused) {
  ListenAddress lost = address();
  lost.path = m_scratch.directory() + "/gone/socketmap";
  EXPECT_EQ(advice(lost),
            "the directory cannot be written: No such file or directory; create the directory, "
            "writable for the user of the service");
}

TEST_F(ListenSocketTest, ADirectoryThatLeavesNoRoomForAnotherNameIsRefused) {
  // The path fits; the longer name that the socket has at first has one byte too many.
  const std::size_t name = std::string("//.tsl").size() + std::to_string(getpid()).size();
  const std::size_t missing = sizeof(sockaddr_un::sun_path) - name - m_scratch.directory().size();
  const std::string directory = m_scratch.directory() + "/" + std::string(missing, 'd');
  fs::create_directory(directory);
  ListenAddress longest = address();
  longest.path = directory + "/s";
  EXPECT_EQ(advice(longest),
            "the directory's name is too long: File name too long; give a shorter path");
  EXPECT_THROW(ListenSocket::check(longest), Tool::Failure);
  fs::rename(directory, directory.substr(0, directory.size() - 1));
  longest.path = directory.substr(0, directory.size() - 1) + "/s";
  const ListenSocket fits(longest);
  EXPECT_TRUE(fs::is_socket(longest.path));
}

TEST_F(ListenSocketTest, AMovedSocketKeepsItsFileAndAReleasedOneToo) {
  std::optional<ListenSocket> first(std::in_place, address());
  {
    ListenSocket second(std::move(*first));
    first.reset();
    EXPECT_TRUE(s_canConnect(path()));
    const int descriptor = second.release();
    EXPECT_EQ(second.descriptor(), -1);
    close(descriptor);
    EXPECT_EQ(files(), 1U);
  }
  EXPECT_EQ(files(), 0U);
}

TEST_F(ListenSocketTest, ANetworkSocketListensAtItsAddress) {
  ListenAddress inet;
  inet.kind = ListenAddress::Kind::Inet;
  inet.protocol = Protocol::Lines;
  inet.host = "127.0.0.1";
  const ListenSocket socket(inet);
  EXPECT_EQ(socket.protocol(), Protocol::Lines);
  sockaddr_in bound{};
  socklen_t size = sizeof(bound);
  ASSERT_EQ(getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&bound), &size), 0);
  EXPECT_EQ(socket.name(), "127.0.0.1:" + std::to_string(ntohs(bound.sin_port)));
  const PlainSocket client(SOCK_STREAM, AF_INET);
  EXPECT_EQ(connect(client.descriptor(), reinterpret_cast<sockaddr*>(&bound), size), 0);
  inet.port = ntohs(bound.sin_port);
  EXPECT_EQ(refusal(inet), "bind: Address already in use");
}

TEST_F(ListenSocketTest, AnAddressOfAnotherHostIsRefused) {
  ListenAddress inet;
  inet.kind = ListenAddress::Kind::Inet;
  inet.host = "192.0.2.1";
  inet.port = 7321;
  EXPECT_EQ(advice(inet),
            "bind: Cannot assign requested address; give a free port on an address of this host");
  EXPECT_THROW(ListenSocket::check(inet), Tool::Failure);
  inet.host = "127.0.0.1";
  const auto open = [&inet] {
    const DescriptorShortage shortage;
    ListenSocket socket(inet);
  };
  EXPECT_THAT(open, testing::Throws<Tool::Failure>(
                        testing::Property(&Tool::Failure::why, "no socket: Too many open files")));
}

TEST_F(ListenSocketTest, APortCanBeListenedOnAgainAtOnce) {
  ListenAddress inet;
  inet.kind = ListenAddress::Kind::Inet;
  inet.host = "127.0.0.1";
  {
    const ListenSocket socket(inet);
    sockaddr_in bound{};
    socklen_t size = sizeof(bound);
    ASSERT_EQ(getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&bound), &size), 0);
    const PlainSocket client(SOCK_STREAM, AF_INET);
    ASSERT_EQ(connect(client.descriptor(), reinterpret_cast<sockaddr*>(&bound), size), 0);
    // Who closes first has the port in TIME_WAIT.
    close(accept(socket.descriptor(), nullptr, nullptr));
    inet.port = ntohs(bound.sin_port);
  }
  EXPECT_EQ(refusal(inet), "");
}

TEST_F(ListenSocketTest, ANetworkSocketOfIPv6HasBracketsInItsName) {
  ListenAddress inet;
  inet.kind = ListenAddress::Kind::Inet;
  inet.host = "::1";
  const ListenSocket socket(inet);
  EXPECT_THAT(socket.name(), testing::MatchesRegex("\\[::1\\]:[1-9][0-9]*"));
}

// Calls `inheritedSockets` in a process that was given the socket `descriptor` as systemd does;
// with `count` as their number; what it exits with: the number of sockets, or 99 for a refusal,
// whose reason goes to standard error.
int s_inherit(int descriptor, const char* name, const char* count = "1") {
  const pid_t child = fork();
  if (child == 0) {
    // As systemd does: from descriptor 3 on, for this process only.
    if (descriptor != 3 && dup2(descriptor, 3) != 3) _exit(100);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", count, 1);
    setenv("LISTEN_FDNAMES", name, 1);
    try {
      const auto sockets = inheritedSockets();
      const int protocol = sockets.size() == 1 ? static_cast<int>(sockets[0].protocol()) : 0;
      _exit(static_cast<int>(sockets.size()) + 10 * protocol);
    } catch (const Tool::Failure& failure) {
      std::cerr << failure.subject() << ": " << failure.why() << "; " << failure.hint();
      _exit(99);
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(ListenSocketTest, SocketsOfSystemdAreTakenOverWithTheirNames) {
  EXPECT_TRUE(inheritedSockets().empty());
  const ListenSocket socket(address());
  EXPECT_EQ(s_inherit(socket.descriptor(), "socketmap"), 1);
  EXPECT_EQ(s_inherit(socket.descriptor(), "line"), 11);
  EXPECT_EQ(s_inherit(socket.descriptor(), "policy"), 21);
}

TEST_F(ListenSocketTest, ASocketOfSystemdIsNeverWaitedOn) {
  const ListenSocket socket(address());
  // Blocking, as systemd makes them: a connection that is gone again would hold up all others.
  ASSERT_EQ(fcntl(socket.descriptor(), F_SETFL, 0), 0);
  EXPECT_EQ(s_inherit(socket.descriptor(), "socketmap"), 1);
  EXPECT_EQ(fcntl(socket.descriptor(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(ListenSocketTest, WhatIsNoListeningStreamSocketIsNotTakenOver) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(s_inherit(PlainSocket(SOCK_STREAM).descriptor(), "x"), 99);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "the sockets of systemd: one of them is not a listening stream socket; the socket unit "
            "must use ListenStream=");
  const PlainSocket datagrams(SOCK_DGRAM);
  ASSERT_TRUE(datagrams.bindTo(path()));
  testing::internal::CaptureStderr();
  EXPECT_EQ(s_inherit(datagrams.descriptor(), "x"), 99);
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ListenSocketTest, ANumberOfSocketsThatIsNoneIsReported) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(s_inherit(STDIN_FILENO, "x", "some"), 99);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "listening on the sockets of systemd: LISTEN_FDS: Invalid argument; ");
}

}  // namespace
}  // namespace Tessel::Serve
