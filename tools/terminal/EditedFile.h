// A text that a person changes in the editor of his choice, and that is never lost.
#ifndef TSL_TOOLS_TERMINAL_EDITEDFILE_H
#define TSL_TOOLS_TERMINAL_EDITEDFILE_H

#include <string>

namespace Tessel::Tool {

// A file in a directory of its own in TMPDIR or /tmp; only this user may enter it, so that nobody
// else reads what the editor leaves there. One object at a time, one thread.
class EditedFile {
 public:
  // Writes `text` into a file with the name `name`. Throws Failure, `OutputFailed`.
  EditedFile(const std::string& name, std::string text);
  // Keeps the file and says where, unless it is as it was, or was discarded. An interrupt keeps it,
  // too.
  ~EditedFile();
  EditedFile(const EditedFile&) = delete;
  EditedFile& operator=(const EditedFile&) = delete;

  [[nodiscard]] const std::string& path() const noexcept { return m_path; }

  // Runs the editor, and waits for its end: the command VISUAL or EDITOR, otherwise `editor`, the
  // choice of the machine, or `vi`. Throws Failure: `Configuration` when it cannot be run,
  // `Unavailable` when it fails.
  void edit() const;
  // True when the file is not as it was; also when it cannot be read.
  [[nodiscard]] bool isChanged() const;
  // The file is not needed any more.
  void discard() noexcept { m_isDiscarded = true; }

 private:
  std::string m_text;
  std::string m_directory;
  std::string m_path;
  bool m_isDiscarded = false;
};

}  // namespace Tessel::Tool

#endif
