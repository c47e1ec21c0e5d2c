// Query: the growing text buffer, and the checks before a statement is sent.
#include "database/Query.h"

#include <errmsg.h>
#include <mysqld_error.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <locale>
#include <new>

#include "base/sourceLine.h"
#include "database/ConnectionImpl.h"
#include "database/Error.h"

namespace Tessel::Database {

namespace {

constexpr char s_context[] = "Database::Query::execute";
constexpr char s_file[] = "Query";

}  // namespace

// Its bytes are written before they are read, so they need no filling.
Query::Buffer::Buffer() {  // NOLINT(cppcoreguidelines-pro-type-member-init): see above
  place(m_start.data(), m_start.size(), 0);
}

Query::Buffer::~Buffer() = default;

std::size_t Query::Buffer::position() const noexcept {
  return static_cast<std::size_t>(pptr() - pbase());
}

std::string_view Query::Buffer::text() const noexcept {
  const std::string_view written(pbase(), position());
  return written.substr(0, written.find('\0'));
}

void Query::Buffer::place(char* base, std::size_t size, std::size_t position) {
  setp(base, base + size);
  // The position moves by an int at a time.
  while (position > 0) {
    const std::size_t step = std::min(position, static_cast<std::size_t>(INT_MAX));
    pbump(static_cast<int>(step));
    position -= step;
  }
}

// Makes room for `more` bytes behind the write position.
void Query::Buffer::grow(std::size_t more) {
  const std::size_t at = position();
  const auto size = static_cast<std::size_t>(epptr() - pbase());
  const std::size_t wanted = std::max(2 * size, at + more);
  m_lacksMemory = true;  // Unless the next lines come through.
  if (m_heap.empty()) {
    m_heap.resize(wanted);
    std::memcpy(m_heap.data(), m_start.data(), std::max(at, m_highest));
  } else {
    m_heap.resize(wanted);
  }
  m_lacksMemory = false;
  place(m_heap.data(), m_heap.size(), at);
}

Query::Buffer::int_type Query::Buffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  grow(1);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

std::streamsize Query::Buffer::xsputn(const char* text, std::streamsize count) {
  const auto size = static_cast<std::size_t>(count);
  if (static_cast<std::size_t>(epptr() - pptr()) < size) grow(size);
  std::memcpy(pptr(), text, size);
  place(pbase(), static_cast<std::size_t>(epptr() - pbase()), position() + size);
  return count;
}

Query::Buffer::pos_type Query::Buffer::seekoff(off_type offset, std::ios_base::seekdir from,
                                               std::ios_base::openmode which) {
  const pos_type failed(off_type(-1));
  if ((which & std::ios_base::out) == 0) return failed;
  m_highest = std::max(m_highest, position());
  off_type target = offset;
  if (from == std::ios_base::cur) target += static_cast<off_type>(position());
  if (from == std::ios_base::end) target += static_cast<off_type>(m_highest);
  if (target < 0 || static_cast<std::size_t>(target) > m_highest) return failed;
  place(pbase(), static_cast<std::size_t>(epptr() - pbase()), static_cast<std::size_t>(target));
  m_lacksMemory = false;
  return {target};
}

Query::Buffer::pos_type Query::Buffer::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}

Query::Query(Connection& connection, RowParser* parser, bool mayRepeat)
    : std::ostream(nullptr), m_connection(connection), m_parser(parser), m_mayRepeat(mayRepeat) {
  rdbuf(&m_buffer);
  // A program's own locale would put separators into numbers.
  if (getloc() != std::locale::classic()) imbue(std::locale::classic());
}

Query::~Query() = default;

std::string_view Query::statement() const noexcept {
  return m_buffer.text();
}

void Query::execute() {
  const std::string_view text = statement();
  if (fail()) {
    if (m_buffer.lacksMemory()) throw std::bad_alloc();
    throw Error(
        s_context, s_file, sourceLine(),
        {CR_UNKNOWN_ERROR, "HY000",
         "The statement is not whole: something could not be written into it", text, false});
  }
  if (text.empty()) {
    throw Error(s_context, s_file, sourceLine(),
                {ER_EMPTY_QUERY, "42000", "The statement is empty", {}, false});
  }
  m_connection.m_impl->execute(text, m_parser, &m_connection, m_mayRepeat, s_context);
}

}  // namespace Tessel::Database
