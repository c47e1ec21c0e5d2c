// An export: a file that is replaced as a whole, or a pipe or device that is written to.
#ifndef TSL_TOOLS_FILES_EXPORTFILE_H
#define TSL_TOOLS_FILES_EXPORTFILE_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "disk/AtomicFile.h"

namespace Tessel::Tool {

// A regular file is replaced as a whole, see AtomicFile; an interrupt leaves it as it was, too. A
// pipe or a device is written directly. One object at a time, one thread.
class ExportFile {
 public:
  // Throws Failure, `OutputFailed`, as do the other operations.
  explicit ExportFile(const std::string& path);
  // Removes what was not finished.
  ~ExportFile();
  ExportFile(const ExportFile&) = delete;
  ExportFile& operator=(const ExportFile&) = delete;

  // True when what is written shows before finish(): the file is not a regular one.
  [[nodiscard]] bool isDirect() const noexcept { return m_isDirect; }
  void write(std::string_view text);
  // Syncs everything to the disk and replaces the file, whose permissions stay.
  void finish();

 private:
  void open();
  void openTemporary(mode_t mode);
  void flush();
  template <class Do>
  void reporting(Do work) const;

  std::string m_path;    // For messages.
  std::string m_target;  // What a symbolic link leads to.
  std::optional<AtomicFile> m_file;
  // Of a pipe or a device, once it is open.
  bool m_isDirect = false;
  int m_descriptor = -1;
  std::string m_buffer;
};

}  // namespace Tessel::Tool

#endif
