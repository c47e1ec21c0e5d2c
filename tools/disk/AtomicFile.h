// Files that are replaced as a whole: with their old content, or with all of the new one.
#ifndef TSL_TOOLS_DISK_ATOMICFILE_H
#define TSL_TOOLS_DISK_ATOMICFILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace Tessel::Tool {

// Writes a temporary file in the directory of its target and renames it at the end. Until then, and
// after a failure, the target is as it was. Every operation throws std::system_error, which names
// the file, for any failure; the destructor removes what was not finished. One thread.
class AtomicFile {
 public:
  // `temporary` must be in the directory of `target`. One that is there already, left by a process
  // that was killed, is removed; a link is not followed. `mode` is that of the new file.
  AtomicFile(std::string target, std::string temporary, mode_t mode);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // The descriptor of the temporary file, for its owner and permissions.
  [[nodiscard]] int descriptor() const noexcept { return m_descriptor; }
  void write(std::string_view bytes);
  // Brings what was written to the disk. Nothing may be written afterwards.
  void sync();
  // Does that unless it is done, and takes the place of the target, durably.
  void finish();

 private:
  void flush();

  const std::string m_target;
  std::string m_temporary;  // Empty once it has taken the place of the target.
  std::string m_buffer;
  int m_descriptor = -1;
};

// The directory of the file `path`; "." for a mere name.
std::string directoryOf(const std::string& path);

}  // namespace Tessel::Tool

#endif
