// The sockets that the lookup service listens on.
#include "serve/socket/ListenSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "disk/AtomicFile.h"
#include "failure/Failure.h"
#include "serve/base/AccessRights.h"

namespace Tessel::Serve {

namespace {

using namespace std::chrono_literals;

using std::chrono::steady_clock;
using Tool::ExitCode;
using Tool::Failure;

constexpr int s_backlog = 4096;
// How long, and with which pause, the lock of a path is tried.
constexpr std::chrono::milliseconds s_lockPatience = 2s;
constexpr std::chrono::milliseconds s_lockPause = 5ms;

[[noreturn]] void s_fail(const std::string& where, const std::string& what, int error,
                         const std::string& hint) {
  throw Failure(ExitCode::Configuration, "listening on " + where,
                what + ": " + std::generic_category().message(error), hint);
}

// A socket to listen on at `where`, or to see who does.
Tool::Descriptor s_socket(int family, const std::string& where) {
  Tool::Descriptor made(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (made.isOpen()) return made;
  s_fail(where, "no socket", errno,
         errno == EAFNOSUPPORT ? "the unit of systemd must allow the network, as its comment says"
                               : "");
}

[[noreturn]] void s_failToWrite(const std::string& path, int error) {
  s_fail(path, "the directory cannot be written", error,
         "create the directory, writable for the user of the service");
}

// True when there is a socket at `path`. Refuses any other file.
bool s_isSocket(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return false;
  if (S_ISSOCK(status.st_mode)) return true;
  throw Failure(ExitCode::Configuration, "listening on " + path, "there is another file",
                "give another path, or remove the file");
}

// Refuses a path that somebody listens on, or that is not a socket.
void s_checkPath(const ListenAddress& address) {
  const std::string& path = address.path;
  if (!s_isSocket(path)) return;
  // Non-blocking: connecting to a service whose queue is full would not return.
  const Tool::Descriptor probe = s_socket(AF_UNIX, path);
  const NativeAddress native = nativeAddress(address);
  const int result = connect(probe.get(), native.get(), native.size);
  const int error = errno;
  // Any other failure is that of a socket that is in use: its queue is full, it is for datagrams,
  // or this user may not connect.
  if (result != 0 && (error == ECONNREFUSED || error == ENOENT)) return;
  throw Failure(ExitCode::Configuration, "listening on " + path, "another service listens there",
                "stop it first, or give another path");
}

bool s_isSameFile(int descriptor, const std::string& path) {
  struct stat open {};
  struct stat named {};
  return fstat(descriptor, &open) == 0 && lstat(path.c_str(), &named) == 0 &&
         open.st_ino == named.st_ino && open.st_dev == named.st_dev;
}

// Keeps other services away from the socket at a path while in scope. The kernel lets go of the
// lock when the process dies.
class PathLock {
 public:
  // Throws Tool::Failure when it cannot be had within the patience.
  explicit PathLock(const std::string& path) : m_path(path + ".lock") {
    for (const auto end = steady_clock::now() + s_lockPatience; steady_clock::now() < end;) {
      m_file.emplace(open(m_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                          S_IRUSR | S_IWUSR));
      if (!m_file->isOpen()) s_failToWrite(path, errno);
      // The one that had it removes the file at its end.
      if (flock(m_file->get(), LOCK_EX | LOCK_NB) == 0 && s_isSameFile(m_file->get(), m_path)) {
        return;
      }
      std::this_thread::sleep_for(s_lockPause);
    }
    throw Failure(ExitCode::Configuration, "listening on " + path,
                  "another service is starting or ending there", "stop it first");
  }
  ~PathLock() { unlink(m_path.c_str()); }
  PathLock(const PathLock&) = delete;
  PathLock& operator=(const PathLock&) = delete;

 private:
  const std::string m_path;
  std::optional<Tool::Descriptor> m_file;
};

gid_t s_group(const std::string& name, const std::string& path) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): asked before there are threads
  const group* const found = getgrnam(name.c_str());
  if (found != nullptr) return found->gr_gid;
  throw Failure(ExitCode::Configuration, "listening on " + path, "there is no group '" + name + "'",
                "give one of 'getent group'");
}

[[noreturn]] void s_failToSetGroup(const std::string& path, int error) {
  s_fail(path, "the group cannot be set", error, "the service's user must be a member of it");
}

// True when this process may give files to `group`.
bool s_mayGiveTo(gid_t group) {
  const std::vector<gid_t> groups = ownGroups();
  return geteuid() == 0 || std::find(groups.begin(), groups.end(), group) != groups.end();
}

// The name in the directory of `path` under which its socket is created.
std::string s_madeName(const std::string& path) {
  std::string made = Tool::directoryOf(path) + "/.tsl" + std::to_string(getpid());
  if (made.size() < sizeof(sockaddr_un::sun_path)) return made;
  s_fail(path, "the directory's name is too long", ENAMETOOLONG, "give a shorter path");
}

std::string s_inetName(const ListenAddress& address) {
  return address.host + " port " + std::to_string(address.port);
}

// A socket, which is bound to the network address unless `error` says why it is not.
Tool::Descriptor s_bindInet(const ListenAddress& address, int& error) {
  const NativeAddress native = nativeAddress(address);
  Tool::Descriptor bound = s_socket(native.family(), s_inetName(address));
  const int on = 1;
  setsockopt(bound.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  error = bind(bound.get(), native.get(), native.size) == 0 ? 0 : errno;
  return bound;
}

[[noreturn]] void s_failToBind(const ListenAddress& address, int error) {
  s_fail(s_inetName(address), "bind", error, "give a free port on an address of this host");
}

// That of a socket of systemd, by its name.
Protocol s_protocolOf(std::string_view name) {
  if (name == "policy") return Protocol::Policy;
  return name == "line" ? Protocol::Lines : Protocol::Netstrings;
}

}  // namespace

void ListenSocket::check(const ListenAddress& address) {
  if (address.kind == ListenAddress::Kind::Inet) {
    int error{};
    s_bindInet(address, error);
    // Most likely by the service that runs.
    if (error != 0 && error != EADDRINUSE) s_failToBind(address, error);
    return;
  }
  const std::string& path = address.path;
  s_madeName(path);
  s_isSocket(path);
  if (faccessat(AT_FDCWD, Tool::directoryOf(path).c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    s_failToWrite(path, errno);
  }
  if (!address.group.empty() && !s_mayGiveTo(s_group(address.group, path))) {
    s_failToSetGroup(path, EPERM);
  }
}

ListenSocket::ListenSocket(const ListenAddress& address) : ListenSocket(address.protocol) {
  if (address.kind == ListenAddress::Kind::Unix) {
    listenUnix(address);
  } else {
    listenInet(address);
  }
}

ListenSocket::ListenSocket(int descriptor, Protocol protocol)
    : m_descriptor(descriptor), m_protocol(protocol) {}

ListenSocket::~ListenSocket() {
  m_descriptor.reset();
  if (m_path.empty()) return;
  try {
    // A failure of the constructor has the lock already.
    std::optional<PathLock> lock;
    if (m_isListening) lock.emplace(m_path);
    if (s_isSameFile(m_file.get(), m_path)) unlink(m_path.c_str());
  } catch (const std::exception&) {
    // The file stays: the next service replaces it.
  }
}

ListenSocket::ListenSocket(ListenSocket&& other) noexcept
    : m_descriptor(std::move(other.m_descriptor)),
      m_protocol(other.m_protocol),
      m_path(std::exchange(other.m_path, {})),
      m_file(std::move(other.m_file)),
      m_isListening(other.m_isListening) {}

// The socket is created under another name and renamed when it is ready, so that at any moment the
// path leads to a service, the one before or this one.
void ListenSocket::listenUnix(const ListenAddress& address) {
  const std::string& path = address.path;
  const PathLock lock(path);
  s_checkPath(address);
  ListenAddress first = address;
  first.path = s_madeName(path);
  const std::string& made = first.path;
  const NativeAddress native = nativeAddress(first);
  m_descriptor = s_socket(AF_UNIX, path);
  unlink(made.c_str());
  const mode_t old = umask(0177);
  const int result = bind(descriptor(), native.get(), native.size);
  const int error = errno;
  umask(old);
  if (result != 0) s_failToWrite(path, error);
  m_path = made;
  m_file.reset(open(made.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!address.group.empty() &&
      chown(made.c_str(), static_cast<uid_t>(-1), s_group(address.group, path)) != 0) {
    s_failToSetGroup(path, errno);
  }
  if (chmod(made.c_str(), address.mode.value_or(0660)) != 0) {
    s_fail(path, "the mode cannot be set", errno, "");
  }
  if (listen(descriptor(), s_backlog) != 0) s_fail(path, "listen", errno, "");
  if (std::rename(made.c_str(), path.c_str()) != 0) s_fail(path, "rename", errno, "");
  m_path = path;
  m_isListening = true;
}

void ListenSocket::listenInet(const ListenAddress& address) {
  int error{};
  m_descriptor = s_bindInet(address, error);
  if (error != 0) s_failToBind(address, error);
  if (listen(descriptor(), s_backlog) != 0) s_fail(s_inetName(address), "listen", errno, "");
}

std::string ListenSocket::name() const {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  if (!m_path.empty()) return m_path;
  if (getsockname(descriptor(), reinterpret_cast<sockaddr*>(&address), &size) != 0) return "?";
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    const auto* const inet = reinterpret_cast<const sockaddr_in*>(&address);
    inet_ntop(AF_INET, &inet->sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(inet->sin_port));
  }
  if (address.ss_family == AF_INET6) {
    const auto* const inet = reinterpret_cast<const sockaddr_in6*>(&address);
    inet_ntop(AF_INET6, &inet->sin6_addr, text, sizeof(text));
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(inet->sin6_port));
  }
  return reinterpret_cast<const sockaddr_un*>(&address)->sun_path;
}

int ListenSocket::release() noexcept {
  return m_descriptor.release();
}

std::vector<ListenSocket> inheritedSockets() {
  std::vector<ListenSocket> sockets;
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(1, &names);
  if (count < 0) s_fail("the sockets of systemd", "LISTEN_FDS", -count, "");
  for (int i = 0; i < count; ++i) {
    const int descriptor = SD_LISTEN_FDS_START + i;
    const bool hasName = names != nullptr && names[i] != nullptr;
    sockets.emplace_back(descriptor, s_protocolOf(hasName ? names[i] : ""));
    if (sd_is_socket(descriptor, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
      throw Failure(ExitCode::Configuration, "the sockets of systemd",
                    "one of them is not a listening stream socket",
                    "the socket unit must use ListenStream=");
    }
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
  }
  for (int i = 0; i < count && names != nullptr; ++i) std::free(names[i]);
  std::free(names);
  return sockets;
}

}  // namespace Tessel::Serve
