// Replacing a file as a whole.
#include "files/ExportFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <random>
#include <system_error>
#include <utility>

#include "base/sizes.h"
#include "failure/Failure.h"
#include "terminal/Interrupt.h"

namespace Tessel::Tool {

namespace {

constexpr mode_t s_permissions = 07777;
constexpr std::size_t s_bufferSize = 64_KiB;

// What an interrupt has to remove; empty when there is nothing.
std::array<char, 4_KiB> s_leftover{};  // Longer names cannot be opened.

void s_removeLeftover() {
  if (s_leftover[0] != '\0') unlink(s_leftover.data());
}

[[noreturn]] void s_throw() {
  throw std::system_error(errno, std::generic_category());
}

// Where the file is that `path` names, possibly by links, whether it is there or not.
std::filesystem::path s_targetOf(std::filesystem::path path) {
  constexpr int s_mostLinks = 40;
  std::error_code error;
  auto target = std::filesystem::canonical(path, error);
  if (!error) return target;
  // What is there all the same is a pipe of this process: /dev/stdout.
  if (std::filesystem::exists(path)) return path;
  for (int links = 0; std::filesystem::is_symlink(path); ++links) {
    if (links == s_mostLinks) throw std::system_error(ELOOP, std::generic_category());
    path = path.parent_path() / std::filesystem::read_symlink(path);
  }
  return path;
}

}  // namespace

ExportFile::ExportFile(const std::string& path) : m_path(path), m_target(path) {
  // A link stays a link: the file that it leads to is replaced, or made.
  reporting([this] {
    m_target = s_targetOf(m_target);
    open();
  });
}

ExportFile::~ExportFile() {
  const Uninterrupted guard;
  m_file.reset();
  s_leftover.fill('\0');
  if (m_descriptor >= 0) ::close(m_descriptor);
}

void ExportFile::open() {
  struct stat found {};
  const bool exists = stat(m_target.c_str(), &found) == 0;
  if (!exists && errno != ENOENT) s_throw();
  if (exists && !S_ISREG(found.st_mode)) {
    m_descriptor = ::open(m_target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (m_descriptor < 0) s_throw();
    m_isDirect = true;
    return;
  }
  if (!exists) return openTemporary(0666);
  if (access(m_target.c_str(), W_OK) != 0) s_throw();
  openTemporary(S_IRUSR | S_IWUSR);
  // Best effort: only an administrator may give a file away.
  static_cast<void>(fchown(m_file->descriptor(), found.st_uid, found.st_gid) == 0);
  if (fchmod(m_file->descriptor(), found.st_mode & s_permissions) != 0) s_throw();
}

void ExportFile::openTemporary(mode_t mode) {
  tidyUpOnInterrupt(&s_removeLeftover);
  // Not a name that another process, perhaps on another host, may use.
  const std::string temporary = directoryOf(m_target) + "/.tsl-address-map-" +
                                std::to_string(getpid()) + "-" +
                                std::to_string(std::random_device()());
  const Uninterrupted guard;
  m_file.emplace(m_target, temporary, mode);
  temporary.copy(s_leftover.data(), s_leftover.size() - 1);
}

void ExportFile::write(std::string_view text) {
  reporting([&] {
    if (m_file) return m_file->write(text);
    m_buffer += text;
    if (m_buffer.size() >= s_bufferSize) flush();
  });
}

void ExportFile::flush() {
  std::string_view left = m_buffer;
  while (!left.empty()) {
    const ssize_t written = ::write(m_descriptor, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) s_throw();
    left.remove_prefix(static_cast<std::size_t>(written));
  }
  m_buffer.clear();
}

void ExportFile::finish() {
  reporting([this] {
    if (!m_file) {
      flush();
      if (::close(std::exchange(m_descriptor, -1)) != 0) s_throw();
      return;
    }
    m_file->sync();
    const Uninterrupted guard;
    m_file->finish();
    s_leftover.fill('\0');
  });
}

template <class Do>
void ExportFile::reporting(Do work) const {
  try {
    work();
  } catch (const std::system_error& error) {
    throw Failure(ExitCode::OutputFailed, "writing " + m_path, error.code().message(),
                  isDirect() ? "what was written is incomplete"
                             : "the file is as it was; name one that can be written");
  }
}

}  // namespace Tessel::Tool
