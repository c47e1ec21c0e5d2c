// A file that is written anew as a whole: it has its old content, or all of the new one.
#ifndef TSL_TOOLS_FILES_EXPORTFILE_H
#define TSL_TOOLS_FILES_EXPORTFILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace Tessel::Tool {

// Writes beside the file, into the same folder, and takes its place at the end. Until then, and
// after a failure or an interrupt, the file is as it was and nothing is left beside it. What is no
// regular file (a pipe, a device) is written as it is. One object at a time, one thread.
class ExportFile {
 public:
  // Throws Failure, `OutputFailed`, as do the other operations.
  explicit ExportFile(const std::string& path);
  // Gives up what was not finished.
  ~ExportFile();
  ExportFile(const ExportFile&) = delete;
  ExportFile& operator=(const ExportFile&) = delete;

  // True when what is written shows before finish(): the file is no regular one.
  [[nodiscard]] bool isDirect() const noexcept { return m_temporary.empty(); }
  void write(std::string_view text);
  // Brings everything to the disk and takes the place of the file, whose permissions stay.
  void finish();

 private:
  void openBeside(const std::string& folder, mode_t mode);
  void flush();
  void close();
  void giveUp() noexcept;
  [[noreturn]] void fail() const;

  std::string m_path;    // For messages.
  std::string m_target;  // What a symbolic link leads to.
  std::string m_temporary;
  std::string m_buffer;
  int m_descriptor = -1;
};

}  // namespace Tessel::Tool

#endif
