// Writing a file anew as a whole.
#include "files/ExportFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "failure/Failure.h"
#include "terminal/Interrupt.h"

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_bufferSize = 64UL * 1024;
constexpr mode_t s_permissions = 07777;

// What an interrupt has to remove; empty when there is nothing.
std::array<char, 4096> s_leftover{};  // Longer names cannot be opened.

void s_removeLeftover() {
  if (s_leftover[0] != '\0') unlink(s_leftover.data());
}

std::string s_folderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

// The entry of the folder must reach the disk too. Some file systems cannot do that; the file is
// whole all the same.
void s_syncFolder(const std::string& folder) {
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  static_cast<void>(fsync(descriptor));
  static_cast<void>(::close(descriptor));
}

}  // namespace

ExportFile::ExportFile(const std::string& path) : m_path(path), m_target(path) {
  std::error_code error;
  // A link stays a link: the file that it leads to is replaced.
  const auto target = std::filesystem::canonical(path, error);
  if (!error) m_target = target.string();
  struct stat found {};
  const bool exists = stat(m_target.c_str(), &found) == 0;
  if (!exists && errno != ENOENT) fail();
  if (!exists) {
    openBeside(s_folderOf(m_target), 0666);
  } else if (S_ISREG(found.st_mode)) {
    if (access(m_target.c_str(), W_OK) != 0) fail();
    openBeside(s_folderOf(m_target), S_IRUSR | S_IWUSR);
    // Best effort: only an administrator may give a file away.
    static_cast<void>(fchown(m_descriptor, found.st_uid, found.st_gid) == 0);
    if (fchmod(m_descriptor, found.st_mode & s_permissions) != 0) {
      const int failure = errno;
      giveUp();
      errno = failure;
      fail();
    }
  } else {
    m_descriptor = open(m_target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (m_descriptor < 0) fail();
  }
}

ExportFile::~ExportFile() {
  giveUp();
}

void ExportFile::openBeside(const std::string& folder, mode_t mode) {
  tidyUpOnInterrupt(&s_removeLeftover);
  for (int attempt = 0; m_descriptor < 0; ++attempt) {
    m_temporary =
        folder + "/.tsl-address-map-" + std::to_string(getpid()) + "-" + std::to_string(attempt);
    const Uninterrupted guard;
    m_descriptor = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    // One may be left from a process that was killed.
    if (m_descriptor < 0 && (errno != EEXIST || attempt > 1000)) fail();
    if (m_descriptor >= 0) m_temporary.copy(s_leftover.data(), s_leftover.size() - 1);
  }
}

void ExportFile::write(std::string_view text) {
  m_buffer += text;
  if (m_buffer.size() >= s_bufferSize) flush();
}

void ExportFile::flush() {
  std::string_view left = m_buffer;
  while (!left.empty()) {
    const ssize_t written = ::write(m_descriptor, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail();
    left.remove_prefix(static_cast<std::size_t>(written));
  }
  m_buffer.clear();
}

void ExportFile::close() {
  const int descriptor = m_descriptor;
  m_descriptor = -1;
  if (::close(descriptor) != 0) fail();
}

void ExportFile::finish() {
  flush();
  if (isDirect()) return close();
  if (fsync(m_descriptor) != 0) fail();
  close();
  {
    const Uninterrupted guard;
    if (std::rename(m_temporary.c_str(), m_target.c_str()) != 0) fail();
    s_leftover.fill('\0');
    m_temporary.clear();
  }
  s_syncFolder(s_folderOf(m_target));
}

void ExportFile::giveUp() noexcept {
  if (m_descriptor >= 0) static_cast<void>(::close(m_descriptor));
  m_descriptor = -1;
  if (m_temporary.empty()) return;
  const Uninterrupted guard;
  if (s_leftover[0] != '\0') static_cast<void>(unlink(m_temporary.c_str()));
  s_leftover.fill('\0');
}

void ExportFile::fail() const {
  throw Failure(ExitCode::OutputFailed, "writing " + m_path, std::generic_category().message(errno),
                isDirect() ? "what was written is incomplete"
                           : "the file is as it was; name one that can be written");
}

}  // namespace Tessel::Tool
