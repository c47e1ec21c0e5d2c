// Files that are replaced as a whole.
#include "disk/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/sizes.h"

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_bufferSize = 64_KiB;

[[noreturn]] void s_fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

// The entry of the directory must reach the disk too.
void s_syncDirectory(const std::string& directory) {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) s_fail(directory);
  const int result = fsync(descriptor);
  const int error = errno;
  ::close(descriptor);
  errno = error;
  // Some file systems cannot do that: they say EINVAL.
  if (result != 0 && error != EINVAL) s_fail(directory);
}

}  // namespace

AtomicFile::AtomicFile(std::string target, std::string temporary, mode_t mode)
    : m_target(std::move(target)), m_temporary(std::move(temporary)) {
  if (unlink(m_temporary.c_str()) != 0 && errno != ENOENT) s_fail(m_temporary);
  m_descriptor =
      open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (m_descriptor < 0) s_fail(m_temporary);
}

AtomicFile::~AtomicFile() {
  if (m_descriptor >= 0) ::close(m_descriptor);
  if (!m_temporary.empty()) unlink(m_temporary.c_str());
}

void AtomicFile::write(std::string_view bytes) {
  m_buffer += bytes;
  if (m_buffer.size() >= s_bufferSize) flush();
}

void AtomicFile::flush() {
  std::string_view left = m_buffer;
  while (!left.empty()) {
    const ssize_t written = ::write(m_descriptor, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) s_fail(m_temporary);
    left.remove_prefix(static_cast<std::size_t>(written));
  }
  m_buffer.clear();
}

void AtomicFile::sync() {
  flush();
  if (fsync(m_descriptor) != 0) s_fail(m_temporary);
  if (::close(std::exchange(m_descriptor, -1)) != 0) s_fail(m_temporary);
}

void AtomicFile::finish() {
  if (m_descriptor >= 0) sync();
  if (std::rename(m_temporary.c_str(), m_target.c_str()) != 0) s_fail(m_target);
  m_temporary.clear();
  s_syncDirectory(directoryOf(m_target));
}

std::string directoryOf(const std::string& path) {
  const std::string directory = std::filesystem::path(path).parent_path().string();
  return directory.empty() ? "." : directory;
}

}  // namespace Tessel::Tool
