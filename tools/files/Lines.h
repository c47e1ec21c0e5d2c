// The lines of a file, and its records.
#ifndef TSL_TOOLS_FILES_LINES_H
#define TSL_TOOLS_FILES_LINES_H

#include <cstddef>
#include <cstdio>
#include <deque>
#include <string>
#include <string_view>

namespace Tessel::Tool {

// Blanks inside a line, and the CR before its LF.
constexpr std::string_view s_blanks = " \t\r";

// U+FEFF, with which some editors begin a file.
constexpr std::string_view s_byteOrderMark = "\xef\xbb\xbf";

// True for a line of these alone.
bool isBlank(std::string_view line);
// `text` without those around it.
std::string_view trimmed(std::string_view text);

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

// The records of a file: its lines, or its logical lines, which lines that begin with a blank
// continue and among which those that begin with "#" are comments. Blank ones are left out. One
// thread.
class Records {
 public:
  // `lines` must outlive the object.
  Records(Lines& lines, bool areLogical) : m_lines(lines), m_areLogical(areLogical) {}

  // The next record; false at the end of the file. Throws as Lines::next(). `record` is valid until
  // the next call.
  bool next(std::string_view& record);
  // The number of the line with which the record begins, from 1.
  [[nodiscard]] std::size_t number() const noexcept { return m_number; }

 private:
  bool nextLogical(std::string_view& record);

  Lines& m_lines;
  bool m_areLogical;
  std::size_t m_number = 0;
  std::string m_record;
  std::string m_start;  // The line that ended the record before it.
  std::size_t m_startNumber = 0;
};

}  // namespace Tessel::Tool

#endif
