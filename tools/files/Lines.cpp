// The lines of a file, and its records.
#include "files/Lines.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "failure/Failure.h"

namespace Tessel::Tool {

namespace {}  // namespace

bool isBlank(std::string_view line) {
  return line.find_first_not_of(s_blanks) == std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
  if (isBlank(text)) return {};
  const std::size_t first = text.find_first_not_of(s_blanks);
  return text.substr(first, text.find_last_not_of(s_blanks) + 1 - first);
}

Lines::Lines(const std::string& path, const std::string& name)
    : m_name(name), m_file(path == "-" ? stdin : std::fopen(path.c_str(), "re")) {
  if (m_file == nullptr) fail("opening " + name);
}

Lines::~Lines() {
  std::free(m_buffer);
  if (m_file != stdin) static_cast<void>(std::fclose(m_file));
}

bool Lines::next(std::string_view& line) {
  if (m_ahead.empty()) {
    if (!read(line)) return false;
  } else {
    m_given = std::move(m_ahead.front());
    m_ahead.pop_front();
    line = m_given;
  }
  ++m_number;
  return true;
}

const std::deque<std::string>& Lines::ahead(std::size_t count) {
  std::string_view line;
  while (m_ahead.size() < count && read(line)) m_ahead.emplace_back(line);
  return m_ahead;
}

bool Lines::read(std::string_view& line) {
  errno = 0;
  const ssize_t size = getline(&m_buffer, &m_capacity, m_file);
  if (size < 0 && (std::ferror(m_file) != 0 || errno == ENOMEM)) fail("reading " + m_name);
  if (size < 0) return false;
  line = std::string_view(m_buffer, static_cast<std::size_t>(size));
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (!std::exchange(m_started, true) && line.starts_with(s_byteOrderMark)) {
    line.remove_prefix(s_byteOrderMark.size());
  }
  return true;
}

void Lines::fail(const std::string& subject) {
  throw Failure(ExitCode::BadData, subject, std::generic_category().message(errno),
                "nothing was written; name a readable file, or - for standard input");
}

bool Records::next(std::string_view& record) {
  if (m_areLogical) return nextLogical(record);
  while (m_lines.next(record)) {
    m_number = m_lines.number();
    if (!isBlank(record)) return true;
  }
  return false;
}

bool Records::nextLogical(std::string_view& record) {
  m_record = std::exchange(m_start, "");
  m_number = m_startNumber;
  std::string_view line;
  while (m_lines.next(line)) {
    // Neither ends a record.
    const std::size_t first = line.find_first_not_of(s_blanks);
    if (first == std::string_view::npos || line[first] == '#') continue;
    if (m_record.empty()) {
      m_record = line;
      m_number = m_lines.number();
    } else if (first > 0) {
      m_record += line;
    } else {
      m_start = line;
      m_startNumber = m_lines.number();
      break;
    }
  }
  record = m_record;
  return !m_record.empty();
}

}  // namespace Tessel::Tool
