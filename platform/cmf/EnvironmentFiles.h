// The configuration directory and its files before LMDB sees them: where they are, whether they are
// there, and how they are created. Private to platform/cmf.
#ifndef TSL_CMF_ENVIRONMENTFILES_H
#define TSL_CMF_ENVIRONMENTFILES_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace Tessel::CMF {

// Which files an environment consists of, so that it is found again under any path and a replaced
// one is noticed.
struct FileIdentity {
  dev_t dataDevice = 0;
  ino_t dataInode = 0;
  dev_t lockDevice = 0;  // 0 with lockInode 0: no lock file (read-only file system).
  ino_t lockInode = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
  [[nodiscard]] bool sameLock(const FileIdentity& other) const noexcept {
    return lockInode != 0 && lockInode == other.lockInode && lockDevice == other.lockDevice;
  }
};

// The directory that TSL_CMF_PATH names, or the default one when that is unset or empty.
std::string configuredPath();

// The address space of the map in bytes, from TSL_CMF_MAP_MIB. Throws Exception, code 4, when that
// is not a sensible number.
std::size_t configuredMapSize();

// The files in `path`. Throws Exception, code 4, when they are absent or out of reach, and, unless
// `mayBeEmpty`, when no writer has filled them yet.
FileIdentity findFiles(const std::string& path, bool mayBeEmpty);

// Creates the directory `path` and its files where they are missing. Throws Exception, code 4.
void createFiles(const std::string& path);

}  // namespace Tessel::CMF

#endif
