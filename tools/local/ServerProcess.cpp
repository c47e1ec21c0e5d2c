// ServerProcess: fork, exec and /proc.
#include "local/ServerProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

#include "base/Exception.h"
#include "base/sizes.h"
#include "base/sourceLine.h"
#include "disk/Descriptor.h"

namespace Tessel {

namespace {

using Tool::Descriptor;

[[noreturn]] void s_fail(const char* context, const std::string& detail, int line = sourceLine()) {
  throw Exception(Exception(context, 4, "ServerProcess", line).stringParameter(detail));
}

std::string s_reason(int error) {
  return std::generic_category().message(error);
}

// What the child needs, prepared before the fork: afterwards only async-signal-safe calls are
// allowed.
struct Launch {
  std::vector<char*> arguments;
  int log = -1;
  int pidFile = -1;
  int failure = -1;  // Write end of a pipe that closes when the program is running.
  int life = -1;     // Read end of a pipe that closes when the program must end.
  int lock = -1;     // To be inherited.
};

void s_writeNumber(int descriptor, long number) {
  std::array<char, 24> digits{};
  std::size_t at = digits.size();
  digits[--at] = '\n';
  for (; number > 0; number /= 10) digits[--at] = static_cast<char>('0' + number % 10);
  // A short write leaves a number that no check accepts; nothing more can be done here.
  static_cast<void>(!write(descriptor, digits.data() + at, digits.size() - at));
}

// Waits until nobody has the other end of the pipe `life` any more, and kills the process group.
[[noreturn]] void s_guard(int life) {
  char byte = 0;
  while (read(life, &byte, 1) < 0 && errno == EINTR) {
  }
  kill(0, SIGKILL);
  _exit(1);
}

[[noreturn]] void s_becomeProgram(const Launch& launch) {
  setsid();
  for (int number = 1; number < NSIG; ++number) signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  if (launch.pidFile >= 0) s_writeNumber(launch.pidFile, getpid());
  umask(S_IRWXG | S_IRWXO);
  // Out of the way first: the caller may run with its own standard files closed.
  constexpr int clear = 10;
  const int log = fcntl(launch.log, F_DUPFD, clear);
  const int failure = fcntl(launch.failure, F_DUPFD, clear);
  const int nothing = fcntl(open("/dev/null", O_RDONLY), F_DUPFD, clear);
  dup2(nothing, STDIN_FILENO);
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  const int life = launch.life < 0 ? -1 : fcntl(launch.life, F_DUPFD, clear);
  const int lock = launch.lock < 0 ? -1 : fcntl(launch.lock, F_DUPFD, clear);
  dup3(failure, 3, O_CLOEXEC);
  unsigned int next = 4;
  if (lock >= 0) dup2(lock, static_cast<int>(next++));
  if (life >= 0) dup3(life, static_cast<int>(next++), O_CLOEXEC);
  close_range(next, UINT_MAX, 0);
  const pid_t guard = life < 0 ? 1 : fork();
  if (guard == 0) {
    close(3);
    s_guard(static_cast<int>(next) - 1);
  }
  if (guard > 0) execv(launch.arguments[0], launch.arguments.data());
  const int error = errno;
  static_cast<void>(!write(3, &error, sizeof(error)));
  _exit(127);
}

int s_openForWriting(const std::string& file, int how) {
  const int descriptor =
      open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | how, S_IRUSR | S_IWUSR);
  if (descriptor < 0) {
    s_fail("LocalServer::start", "Cannot write " + file + ": " + s_reason(errno));
  }
  return descriptor;
}

}  // namespace

std::string findServerProgram(const std::vector<std::string>& names, const std::string& package) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; callers keep the environment still
  const char* path = std::getenv("PATH");
  const std::string directories = std::string(path != nullptr ? path : "") +
                                  ":/usr/sbin:/usr/bin:/usr/local/sbin:/usr/local/bin";
  for (const std::string& name : names) {
    std::istringstream list(directories);
    for (std::string directory; std::getline(list, directory, ':');) {
      if (directory.empty() || directory[0] != '/') continue;
      std::string candidate = directory;
      candidate.append("/").append(name);
      struct stat status {};
      if (stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
          access(candidate.c_str(), X_OK) == 0) {
        return candidate;
      }
    }
  }
  s_fail("LocalServer::start",
         "The program " + names.front() +
             " was not found in PATH, /usr/sbin or /usr/bin; install the Debian package " +
             package);
}

namespace {

// Starts `command` as `launch`, without its other fields, says.
pid_t s_start(const std::vector<std::string>& command, const std::string& logFile,
              const std::string& pidFile, Launch launch) {
  const Descriptor log(s_openForWriting(logFile, O_APPEND));
  const Descriptor pid(pidFile.empty() ? -1 : s_openForWriting(pidFile, O_TRUNC));
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    s_fail("LocalServer::start", "Cannot create a pipe: " + s_reason(errno));
  }
  const Descriptor readEnd(ends[0]);
  Descriptor writeEnd(ends[1]);
  std::vector<std::string> words = command;
  launch.log = log.get();
  launch.pidFile = pid.get();
  launch.failure = writeEnd.get();
  for (std::string& word : words) launch.arguments.push_back(word.data());
  launch.arguments.push_back(nullptr);

  const pid_t child = fork();
  if (child < 0) s_fail("LocalServer::start", "Cannot fork: " + s_reason(errno));
  if (child == 0) s_becomeProgram(launch);
  writeEnd.reset();
  int error = 0;
  ssize_t count = 0;
  do {
    count = read(readEnd.get(), &error, sizeof(error));
  } while (count < 0 && errno == EINTR);
  if (count > 0) {
    waitpid(child, nullptr, 0);
    s_fail("LocalServer::start", "Cannot run " + command[0] + ": " + s_reason(error));
  }
  return child;
}

}  // namespace

pid_t startDetached(const std::vector<std::string>& command, const std::string& logFile,
                    const std::string& pidFile) {
  return s_start(command, logFile, pidFile, {});
}

int runDetached(const std::vector<std::string>& command, const std::string& logFile, int lock) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    s_fail("LocalServer::start", "Cannot create a pipe: " + s_reason(errno));
  }
  const Descriptor readEnd(ends[0]);
  const Descriptor writeEnd(ends[1]);  // Closes with this call or this process.
  Launch launch;
  launch.life = readEnd.get();
  launch.lock = lock;
  const pid_t child = s_start(command, logFile, {}, launch);
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) s_fail("LocalServer::start", "Cannot wait: " + s_reason(errno));
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool isServer(pid_t pid, const std::string& argument) {
  if (pid <= 0) return false;
  // Arguments end with NUL characters; a dead process that nobody collected has none.
  std::ifstream list("/proc/" + std::to_string(pid) + "/cmdline");
  std::string word;
  if (!std::getline(list, word, '\0')) return false;
  const std::string program = word.substr(word.rfind('/') + 1);
  if (program != "mariadbd" && program != "mysqld") return false;
  while (std::getline(list, word, '\0')) {
    if (word == argument) return true;
  }
  return false;
}

bool hasEnded(pid_t pid) {
  if (waitpid(pid, nullptr, WNOHANG) == pid) return true;
  return kill(pid, 0) != 0 && errno == ESRCH;
}

bool greets(const std::string& path, int milliseconds) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return false;
  }
  pollfd waiting{socket.get(), POLLIN, 0};
  if (poll(&waiting, 1, milliseconds) != 1) return false;
  // Four bytes of packet header, then the protocol version, or the mark of an error such as "too
  // many connections", which is an answer too.
  std::array<unsigned char, 5> start{};
  const ssize_t count = recv(socket.get(), start.data(), start.size(), MSG_WAITALL);
  return count == static_cast<ssize_t>(start.size()) && (start[4] == 10 || start[4] == 0xff);
}

std::string callerName() {
  std::array<char, 4_KiB> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
  if (found == nullptr) {
    s_fail("LocalServer::start",
           "The user database has no name for user id " + std::to_string(geteuid()));
  }
  return entry.pw_name;
}

namespace {

bool s_become(const Account& account) {
  if (geteuid() == account.user) return true;
  // The last call lets programs that it starts look into /proc for its descriptors again.
  return setgroups(0, nullptr) == 0 &&
         setresgid(account.group, account.group, account.group) == 0 &&
         setresuid(account.user, account.user, account.user) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0;
}

// Why `work` failed; empty when it did not.
std::string s_outcome(const Account& account, const std::function<void()>& work) {
  if (!s_become(account)) return "Cannot become another user: " + s_reason(errno);
  try {
    work();
    return {};
  } catch (const Exception& exception) {
    return exception.stringParameter().empty() ? exception.what() : exception.stringParameter();
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

}  // namespace

void runAs(const Account& account, const std::function<void()>& work) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    s_fail("LocalServer::start", "Cannot create a pipe: " + s_reason(errno));
  }
  const Descriptor readEnd(ends[0]);
  Descriptor writeEnd(ends[1]);
  const pid_t child = fork();
  if (child < 0) s_fail("LocalServer::start", "Cannot fork: " + s_reason(errno));
  if (child == 0) {
    const std::string why = s_outcome(account, work);
    // What does not fit into the pipe at once waits for the reader.
    const bool told = write(writeEnd.get(), why.data(), why.size()) >= 0;
    _exit(told && why.empty() ? 0 : 1);
  }
  writeEnd.reset();
  std::string why;
  std::array<char, 512> piece{};
  for (ssize_t count = 0; (count = read(readEnd.get(), piece.data(), piece.size())) != 0;) {
    if (count > 0) why.append(piece.data(), static_cast<std::size_t>(count));
    if (count < 0 && errno != EINTR) break;
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (status == 0) return;
  s_fail("LocalServer::start", why.empty() ? "A child process was killed" : why);
}

}  // namespace Tessel
