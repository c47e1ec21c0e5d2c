// A statement: an output stream whose text is sent to the server.
#ifndef TSL_DATABASE_QUERY_H
#define TSL_DATABASE_QUERY_H

#include <array>
#include <cstddef>
#include <ios>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include "base/Export.h"
#include "database/Connection.h"

namespace Tessel::Database {

class RowParser;

// Write the statement into it, then execute() it, as often as wanted. The statement is the text up
// to the write position or up to its first NUL character, whichever comes first; so after seekp(0)
// a new statement may be written over an old one. Text is taken as it is: whoever writes a value
// escapes it. Numbers are written in the classic locale, whatever the program's. Only one statement
// at a time: the server refuses a second one behind a semicolon.
//
// One thread at a time, together with the connection.
class TSL_EXPORT Query : public std::ostream {
 public:
  // A query on `connection`, which must outlive it. `parser` (kept, not owned) is handed the first
  // result of the statement; it may be null, the rows are then dropped. `mayRepeat` says that the
  // statement may be sent once more if the connection breaks before its answer came. Even then that
  // is done only outside of a transaction, for statements whose repetition changes nothing: select,
  // show, describe, explain, set, replace, delete (without a limit), insert with "on duplicate key
  // update" to fixed values, create table "if not exists" and drop "if exists".
  Query(Connection& connection, RowParser* parser, bool mayRepeat);
  ~Query() override;
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  // Sends the statement and takes in the whole answer, calling the parser. The text stays as it is.
  // Throws Error: what the server answered; a lost connection, where Error::outcomeUnknown() says
  // whether the statement may have been carried out; number 1065 when the text is empty, 2000 when
  // an insertion into this stream failed, so that the text is not whole. Throws std::bad_alloc when
  // it failed for lack of memory: a stream takes that for a bad state and goes on. Nothing is sent
  // in either case; call clear() and write it again. What the parser throws passes through.
  void execute();

  // The statement as it would be sent now. Valid until something is written.
  [[nodiscard]] std::string_view statement() const noexcept;

 private:
  // Text of any length with a write position that can be set anywhere in it.
  class TSL_HIDDEN Buffer : public std::streambuf {
   public:
    Buffer();
    ~Buffer() override;
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    [[nodiscard]] std::string_view text() const noexcept;
    // True when there was no memory for what was last written.
    [[nodiscard]] bool lacksMemory() const noexcept { return m_lacksMemory; }

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                     std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

   private:
    [[nodiscard]] std::size_t position() const noexcept;
    void place(char* base, std::size_t size, std::size_t position);
    void grow(std::size_t more);

    // Holds a lookup without a trip to the heap.
    std::array<char, 384> m_start;
    std::string m_heap;         // In use once the text outgrew m_start.
    std::size_t m_highest = 0;  // End of the text written so far, as of the last seek.
    bool m_lacksMemory = false;
  };

  Buffer m_buffer;
  Connection& m_connection;
  RowParser* m_parser;
  bool m_mayRepeat;
};

}  // namespace Tessel::Database

#endif
