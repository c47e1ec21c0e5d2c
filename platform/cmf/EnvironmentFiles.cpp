// The configuration directory and its files: settings, look-up, creation.
#include "cmf/EnvironmentFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "cmf/Failure.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_openPlace{"CMF::Environment::open", "EnvironmentFiles"};
constexpr Place s_createPlace{"CMF::Environment::create", "EnvironmentFiles"};
constexpr char s_defaultPath[] = "/var/lib/tsl/cmf";

// Address space, not memory and not disk: the file grows as it is needed. 16 GiB hold more than 100
// million users, and fit any 64-bit process that sets itself no limit.
constexpr std::size_t s_defaultMapMiB = 16384;
constexpr std::size_t s_maxMapMiB = std::size_t{16} * 1024 * 1024;  // 16 TiB

// See FILES in StorageFormat.h for the reasons.
constexpr mode_t s_directoryMode = 0750;
constexpr mode_t s_parentMode = 0755;
constexpr mode_t s_dataMode = 0640;
constexpr mode_t s_lockMode = 0660;

// The value of an environment variable; null when it is unset or empty.
const char* s_setting(const char* name) {
  // getenv is safe here as long as the program does not change its environment at the same time.
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see above
  return value != nullptr && *value != '\0' ? value : nullptr;
}

// What can be done about an environment that is not there.
std::string s_absent(const std::string& path, int error) {
  return "No configuration in " + path + " (" + std::generic_category().message(error) +
         "): add the domains and users first, or set TSL_CMF_PATH to the right directory";
}

void s_createDirectory(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    // Only the last directory's creation decides: an existing parent may well refuse to be created.
    if (slash + 1 < path.size()) ::mkdir(path.substr(0, slash).c_str(), s_parentMode);
  }
  if (::mkdir(path.c_str(), s_directoryMode) == 0 || errno == EEXIST) return;
  failWith(s_createPlace, "Cannot create the directory", path, errno);
}

// Deliberate: the mode is set whatever the umask says. A lock file that its readers cannot write
// would lock them out; who may come near it at all is decided by the directory's mode.
void s_createFile(const std::string& path, const char* name, mode_t mode) {
  const std::string file = path + "/" + name;
  const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (descriptor < 0) {
    if (errno == EEXIST) return;
    failWith(s_createPlace, std::string("Cannot create ") + name, path, errno);
  }
  const int error = ::fchmod(descriptor, mode) == 0 ? 0 : errno;
  ::close(descriptor);
  if (error != 0) {
    failWith(s_createPlace, std::string("Cannot set the mode of ") + name, path, error);
  }
}

bool s_onReadOnlyFileSystem(const std::string& path) {
  struct statvfs status {};
  return ::statvfs(path.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

}  // namespace

std::string configuredPath() {
  const char* path = s_setting("TSL_CMF_PATH");
  return path != nullptr ? path : s_defaultPath;
}

std::size_t configuredMapSize() {
  std::size_t mebibytes = s_defaultMapMiB;
  if (const char* text = s_setting("TSL_CMF_MAP_MIB"); text != nullptr) {
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, mebibytes);
    if (error != std::errc{} || stop != end || mebibytes < 1 || mebibytes > s_maxMapMiB) {
      fail(s_openPlace, std::string("TSL_CMF_MAP_MIB must be a number from 1 to ") +
                            std::to_string(s_maxMapMiB) + ": " + text);
    }
  }
  return mebibytes << 20U;
}

FileIdentity findFiles(const std::string& path, bool mayBeEmpty) {
  struct stat data {};
  if (::stat((path + "/data.mdb").c_str(), &data) != 0) {
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR) fail(s_openPlace, s_absent(path, error));
    failWith(s_openPlace, "Cannot reach data.mdb", path, error);
  }
  if (!S_ISREG(data.st_mode)) fail(s_openPlace, "data.mdb in " + path + " is no regular file");
  // LMDB would fill an empty file even for a reader.
  if (!mayBeEmpty && data.st_size == 0) {
    fail(s_openPlace, "data.mdb in " + path + " is empty: nothing was stored yet");
  }

  struct stat lock {};
  if (::stat((path + "/lock.mdb").c_str(), &lock) == 0) {
    return {data.st_dev, data.st_ino, lock.st_dev, lock.st_ino};
  }
  const int error = errno;
  // On a read-only file system LMDB reads without a lock file, since nobody writes.
  if (error == ENOENT && s_onReadOnlyFileSystem(path)) return {data.st_dev, data.st_ino, 0, 0};
  // LMDB would create it now, owned by whoever happens to read first, who may lock out the others.
  if (error == ENOENT) {
    fail(s_openPlace, "lock.mdb is missing in " + path +
                          ": open the configuration for writing once, as the user who owns it");
  }
  failWith(s_openPlace, "Cannot reach lock.mdb", path, error);
}

void createFiles(const std::string& path) {
  s_createDirectory(path);
  // The lock file first: a reader takes a directory with data.mdb alone for a damaged one.
  s_createFile(path, "lock.mdb", s_lockMode);
  s_createFile(path, "data.mdb", s_dataMode);
}

}  // namespace Tessel::CMF
