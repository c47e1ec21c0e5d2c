// The lines of a file.
#ifndef TSL_TOOLS_FILES_LINES_H
#define TSL_TOOLS_FILES_LINES_H

#include <cstddef>
#include <cstdio>
#include <deque>
#include <string>
#include <string_view>

namespace Tessel::Tool {

// True for a line of blanks, tabs and CR alone.
bool isBlank(std::string_view line);

// The lines of a file, of any length and with any bytes; a byte order mark at the start is left
// out. One thread.
class Lines {
 public:
  // "-" is standard input; `name` is for messages and must outlive the object. Throws Failure,
  // `BadData`, when the file cannot be opened.
  Lines(const std::string& path, const std::string& name);
  ~Lines();
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  // The next line without its end, LF or CR LF; false at the end of the file. Throws Failure,
  // `BadData`. `line` is valid until the next call of any operation.
  bool next(std::string_view& line);
  // The number of the line that next() gave last, from 1.
  [[nodiscard]] std::size_t number() const noexcept { return m_number; }
  // Up to `count` of the lines that next() will give, blank ones included; fewer at the end of the
  // file. They stay to be given. Throws as next(). Valid until the next call of next().
  const std::deque<std::string>& ahead(std::size_t count);

 private:
  bool read(std::string_view& line);
  [[noreturn]] static void fail(const std::string& subject);

  const std::string& m_name;
  std::FILE* m_file;  // Owned but for stdin.
  char* m_buffer = nullptr;
  std::size_t m_capacity = 0;
  std::deque<std::string> m_ahead;
  std::string m_given;  // The line that came last out of `m_ahead`.
  std::size_t m_number = 0;
  bool m_started = false;
};

}  // namespace Tessel::Tool

#endif
