// PrivateDirectory: directories and files that only their owner reaches.
#include "local/PrivateDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel {

namespace {

namespace fs = std::filesystem;

constexpr char s_startContext[] = "LocalServer::start";

[[noreturn]] void s_fail(const char* context, const std::string& detail, int line = sourceLine()) {
  throw Exception(Exception(context, 4, "PrivateDirectory", line).stringParameter(detail));
}

}  // namespace

void makePrivateDirectory(const std::string& directory, mode_t mode) {
  std::error_code error;
  fs::create_directories(fs::path(directory).parent_path(), error);
  if (!error && mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    error.assign(errno, std::generic_category());
  }
  if (error) s_fail(s_startContext, "Cannot create " + directory + ": " + error.message());
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0 || status.st_uid != geteuid()) {
    s_fail(s_startContext,
           directory + " belongs to another user; name another directory, or run as that user");
  }
  if (chmod(directory.c_str(), mode) != 0) {
    s_fail(s_startContext,
           "Cannot close " + directory + " to others: " + std::generic_category().message(errno));
  }
}

void makeServerDirectory(const std::string& directory, mode_t mode) {
  // Never take away the access of others to a directory with another purpose. Another start may be
  // filling this one: it creates the lock file first, so this is looked for last.
  std::error_code error;
  if (fs::exists(directory) && !fs::is_empty(directory, error) &&
      !fs::exists(directory + "/lock")) {
    s_fail(s_startContext,
           directory + " is in use for something else; name an empty or a new directory");
  }
  makePrivateDirectory(directory, mode);
}

void writePrivateFile(const std::string& file, const std::string& text) {
  const std::string fresh = file + ".new";
  {
    std::ofstream stream(fresh, std::ios::trunc);
    // Before there is anything to read.
    fs::permissions(fresh, fs::perms::owner_read | fs::perms::owner_write);
    stream << text << "\n";
    if (!stream.flush()) s_fail(s_startContext, "Cannot write " + fresh);
  }
  fs::rename(fresh, file);
}

DirectoryLock::DirectoryLock(const char* context, const std::string& directory)
    : m_descriptor(
          open((directory + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
  if (m_descriptor.get() < 0) {
    s_fail(context, "Cannot write in " + directory + ": " + std::generic_category().message(errno));
  }
  while (flock(m_descriptor.get(), LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    s_fail(context, "Cannot lock " + directory + ": " + std::generic_category().message(errno));
  }
}

}  // namespace Tessel
