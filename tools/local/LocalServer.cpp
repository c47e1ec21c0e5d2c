// LocalServer: the directory, the first set-up, start and stop.
#include "local/LocalServer.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>

#include "base/Exception.h"
#include "base/sizes.h"
#include "base/sourceLine.h"
#include "disk/Descriptor.h"
#include "local/PrivateDirectory.h"
#include "local/ServerProcess.h"

namespace Tessel {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// How long a start or a stop may take: recovery after a crash and flushing at the end included.
constexpr std::chrono::seconds s_patience{60};
constexpr std::chrono::milliseconds s_pause{10};
// Most memory for table pages, and least that the server runs with.
constexpr std::uint64_t s_largestPool = 1024_MiB;
constexpr std::uint64_t s_smallestPool = 16_MiB;
// Longest path of a Unix socket, in bytes.
constexpr std::size_t s_longestSocket = sizeof(sockaddr_un::sun_path) - 1;
// Lines of the server's log that an error shows.
constexpr std::size_t s_shownLines = 8;

constexpr char s_startContext[] = "LocalServer::start";
constexpr char s_stopContext[] = "LocalServer::stop";

[[noreturn]] void s_fail(const char* context, const std::string& detail, int line = sourceLine()) {
  throw Exception(Exception(context, 4, "LocalServer", line).stringParameter(detail));
}

std::string s_environment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; callers keep the environment still
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string s_absolute(const std::string& directory) {
  if (directory.empty()) s_fail("LocalServer", "The name of the server's directory is empty");
  for (const char c : directory) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\'' || c == '\\') {
      s_fail("LocalServer",
             "The name of the server's directory must not hold quotes, backslashes or control "
             "characters: " +
                 directory);
    }
  }
  fs::path path = fs::absolute(directory).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  return path.string();
}

// True for a directory that nobody else can have put there or can look into.
bool s_isOwnDirectory(const std::string& directory) {
  struct stat status {};
  return lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

std::string s_firstLine(const std::string& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

std::string s_newDirectoryFor(const std::string& name) {
  for (const std::string& parent : {s_environment("XDG_RUNTIME_DIR"), std::string("/tmp")}) {
    std::string directory = parent + "/tsl-XXXXXX";
    if (parent.empty() || directory.size() + name.size() > s_longestSocket) continue;
    if (mkdtemp(directory.data()) != nullptr) return directory;
  }
  s_fail(s_startContext, "Cannot create a directory for the server's socket under /tmp");
}

// Another name for a directory, without the blanks and special characters that the set-up script
// does not cope with. It is valid as long as this object lives, also for other processes of the
// user, and leaves nothing behind.
class PlainPath {
 public:
  explicit PlainPath(const std::string& directory)
      : m_descriptor(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (m_descriptor.get() < 0) {
      s_fail(s_startContext,
             "Cannot open " + directory + ": " + std::generic_category().message(errno));
    }
  }
  [[nodiscard]] std::string path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_descriptor.get());
  }

 private:
  const Tool::Descriptor m_descriptor;
};

std::uint64_t s_defaultPool() {
  const auto pages = static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES));
  const auto size = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return std::clamp(pages * size / 4, s_smallestPool, s_largestPool);
}

constexpr char s_socketName[] = "/db.sock";
// Directory for the temporary tables of the server.
constexpr char s_temporaryName[] = "/tmp";

}  // namespace

LocalServer::LocalServer(const std::string& directory) : m_directory(s_absolute(directory)) {}

std::string LocalServer::defaultDirectory() {
  const std::string state = s_environment("XDG_STATE_HOME");
  // The rules for that variable say to ignore a relative path.
  if (!state.empty() && state[0] == '/') return state + "/tsl-address-map";
  std::string home = s_environment("HOME");
  if (home.empty()) {
    std::array<char, 4_KiB> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (found != nullptr) home = entry.pw_dir;
  }
  if (home.empty()) {
    s_fail("LocalServer::defaultDirectory",
           "There is no home directory; set HOME, or name the server's directory");
  }
  return home + "/.local/state/tsl-address-map";
}

std::string LocalServer::optionFile() const {
  return m_directory + "/client.cnf";
}

std::string LocalServer::cmfDirectory() const {
  return m_directory + "/cmf";
}

// The server adds an extension of its own to a name without one.
std::string LocalServer::logFile() const {
  return m_directory + "/server.log";
}

std::string LocalServer::dataDirectory() const {
  return m_directory + "/data";
}

std::string LocalServer::runDirectory() const {
  return m_directory + "/run";
}

std::string LocalServer::pidFile() const {
  return runDirectory() + "/mariadbd.pid";
}

std::string LocalServer::socketPath() const {
  std::string usual = runDirectory() + s_socketName;
  if (usual.size() <= s_longestSocket) return usual;
  const std::string directory = s_firstLine(runDirectory() + "/socket-directory");
  return directory.empty() ? "" : directory + s_socketName;
}

pid_t LocalServer::pid() const {
  std::ifstream stream(pidFile());
  pid_t number = 0;
  stream >> number;
  // The number may be left over from before a crash, and belong to any program by now.
  return stream && isServer(number, "--datadir=" + dataDirectory()) ? number : 0;
}

bool LocalServer::isRunning() const {
  return pid() != 0;
}

// The data files appear under their name only when they are complete.
void LocalServer::setUpData(const Options& options, int lock) const {
  if (fs::exists(dataDirectory())) return;
  if (options.joins) return makePrivateDirectory(dataDirectory());
  const std::string fresh = dataDirectory() + ".new";
  fs::remove_all(fresh);
  const PlainPath plain(m_directory);
  const std::string user = callerName();
  std::vector<std::string> command{findServerProgram({"mariadb-install-db", "mysql_install_db"}),
                                   "--no-defaults",
                                   "--datadir=" + plain.path() + fresh.substr(m_directory.size()),
                                   "--tmpdir=" + plain.path() + s_temporaryName,
                                   "--auth-root-authentication-method=socket",
                                   "--auth-root-socket-user=" + user,
                                   "--skip-test-db",
                                   "--skip-name-resolve"};
  if (geteuid() == 0) command.push_back("--user=root");
  if (!options.durable) {
    command.insert(command.end(),
                   {"--innodb-flush-log-at-trx-commit=0", "--innodb-doublewrite=OFF"});
  }
  for (const std::string& argument : options.arguments) {
    if (argument.starts_with("--innodb-")) command.push_back(argument);
  }
  const int status = runDetached(command, logFile(), lock);
  if (status != 0) {
    s_fail(s_startContext, "Setting up the data files ended with status " + std::to_string(status) +
                               lastLogLines());
  }
  fs::rename(fresh, dataDirectory());
}

// Where the usual path is too long, the socket gets a directory of its own, which may have vanished
// since the last start (a restart of the machine empties /tmp) and must not belong to another user.
void LocalServer::placeSocket() const {
  const std::string usual = runDirectory() + s_socketName;
  if (usual.size() > s_longestSocket) {
    const std::string record = runDirectory() + "/socket-directory";
    if (!s_isOwnDirectory(s_firstLine(record))) {
      writePrivateFile(record, s_newDirectoryFor(s_socketName));
    }
  }
  fs::remove(socketPath());
}

void LocalServer::removeSocketDirectory() const {
  const std::string record = runDirectory() + "/socket-directory";
  const std::string directory = s_firstLine(record);
  if (directory.empty() || !s_isOwnDirectory(directory)) return;
  // What cannot be removed is left to the system's clean-up of temporary files.
  std::error_code ignored;
  fs::remove(directory + s_socketName, ignored);
  fs::remove(directory, ignored);
  fs::remove(record, ignored);
}

void LocalServer::writeOptionFile() const {
  writePrivateFile(
      optionFile(),
      "# Leads clients to the private server of this directory. Written by each start.\n"
      "[client]\nsocket=\"" +
          socketPath() + "\"\nuser=\"" + callerName() + "\"");
}

std::vector<std::string> LocalServer::arguments(const Options& options) const {
  const std::uint64_t pool = options.bufferPool != 0 ? options.bufferPool : s_defaultPool();
  std::vector<std::string> command{
      findServerProgram({"mariadbd", "mysqld"}), "--no-defaults", "--datadir=" + dataDirectory(),
      // A starting server removes what looks like another's temporary tables: none may share this.
      "--tmpdir=" + m_directory + s_temporaryName, "--socket=" + socketPath(),
      "--pid-file=" + pidFile(), "--log-error=" + logFile(), "--skip-networking",
      "--skip-name-resolve", "--performance-schema=OFF", "--character-set-server=utf8mb4",
      "--innodb-buffer-pool-size=" + std::to_string(pool),
      std::string("--innodb-flush-log-at-trx-commit=") + (options.durable ? "1" : "0"),
      std::string("--innodb-doublewrite=") + (options.durable ? "ON" : "OFF")};
  if (geteuid() == 0) command.push_back("--user=root");
  command.insert(command.end(), options.arguments.begin(), options.arguments.end());
  return command;
}

std::string LocalServer::lastLogLines() const {
  std::ifstream stream(logFile());
  std::deque<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
    if (lines.size() > s_shownLines) lines.pop_front();
  }
  std::string text = "; the end of " + logFile() + ":";
  for (const std::string& line : lines) text += "\n" + line;
  return text;
}

void LocalServer::awaitAnswer(pid_t server) const {
  const Clock::time_point limit = Clock::now() + s_patience;
  while (Clock::now() < limit) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now());
    if (greets(socketPath(), static_cast<int>(left.count()))) return;
    if (hasEnded(server)) {
      s_fail(s_startContext, "The server ended while it started" + lastLogLines());
    }
    std::this_thread::sleep_for(s_pause);
  }
  s_fail(s_startContext, "The server did not answer within " + std::to_string(s_patience.count()) +
                             " seconds" + lastLogLines());
}

bool LocalServer::start() {
  return start(Options());
}

bool LocalServer::start(const Options& options) try {
  makeServerDirectory(m_directory);
  const DirectoryLock lock(s_startContext, m_directory);
  for (const std::string& inner : {runDirectory(), cmfDirectory(), m_directory + s_temporaryName}) {
    makePrivateDirectory(inner);
  }
  // A server that runs may have been started a moment ago by a process that has ended.
  if (const pid_t running = pid(); running != 0) {
    awaitAnswer(running);
    return false;
  }
  findServerProgram({"mariadbd", "mysqld"});
  setUpData(options, lock.descriptor());
  placeSocket();
  writeOptionFile();
  awaitAnswer(startDetached(arguments(options), logFile(), pidFile()));
  return true;
} catch (const fs::filesystem_error& error) {
  s_fail(s_startContext, error.what());
}

int LocalServer::examine(const Options& options) {
  const DirectoryLock lock(s_startContext, m_directory);
  return runDetached(arguments(options), logFile(), lock.descriptor());
}

bool LocalServer::stop() {
  if (!fs::exists(m_directory)) return false;
  const DirectoryLock lock(s_stopContext, m_directory);
  const pid_t server = pid();
  if (server == 0) return false;
  if (kill(server, SIGTERM) != 0) {
    s_fail(s_stopContext, "Cannot end process " + std::to_string(server) + ": " +
                              std::generic_category().message(errno));
  }
  // A process that is suspended sees no signal but this one.
  kill(server, SIGCONT);
  const Clock::time_point limit = Clock::now() + s_patience;
  while (!hasEnded(server) && pid() == server) {
    if (Clock::now() >= limit) {
      s_fail(s_stopContext, "Process " + std::to_string(server) + " still runs after " +
                                std::to_string(s_patience.count()) + " seconds; see " + logFile());
    }
    std::this_thread::sleep_for(s_pause);
  }
  removeSocketDirectory();
  return true;
}

}  // namespace Tessel
