// The formats of table files: how a row is written in each of them, and read.
#ifndef TSL_TOOLS_FILES_FILESYNTAX_H
#define TSL_TOOLS_FILES_FILESYNTAX_H

#include <string>
#include <string_view>

#include "files/Lines.h"
#include "tables/TableFormat.h"

namespace Tessel::Tool {

enum class FileFormat {
  Native,     // KEY:VALUE
  JsonLines,  // One JSON object per line.
  Csv,        // RFC 4180, with a header.
  Virtual,    // Postfix: virtual(5) for aliases, canonical(5) for masks.
  Aliases,    // aliases(5); aliases only.
};

// A format as it is used on one file. One thread.
class FileSyntax {
 public:
  // `table` must outlive the object. `domain`, with `Aliases` only, is that of names without one;
  // may be empty.
  FileSyntax(FileFormat format, const TableFormat& table, std::string domain);

  // The format that the option --format names. Throws Failure, `Usage`, for what is not a format of
  // the table, and for a domain where the format takes none.
  static FileSyntax named(const std::string& name, const TableFormat& table,
                          const std::string& domain);
  // The format that the first lines of `lines` are in; they stay to be read. Native when they are
  // in none. Throws Failure: `BadData` when they may be in several, and `Usage` for a domain as
  // above.
  static FileSyntax detected(Lines& lines, const std::string& file, const TableFormat& table,
                             const std::string& domain);

  [[nodiscard]] FileFormat format() const noexcept { return m_format; }
  // The name of the format, as --format takes it.
  [[nodiscard]] const char* name() const noexcept;
  // The line before the rows, with the CR it ends with, if any; empty when there is none.
  [[nodiscard]] std::string header() const;
  // Writes the line of a good row, without its LF. Returns why the format cannot express it, or
  // empty text.
  std::string write(const TableEntry& entry, std::string& line) const;
  // Reads a record, which is not blank. Returns what is wrong, or empty text.
  std::string read(std::string_view record, TableEntry& entry) const;

 private:
  std::string writeJson(const TableEntry& entry, std::string& line) const;
  std::string writeVirtual(const TableEntry& entry, std::string& line) const;
  std::string writeAliases(const TableEntry& entry, std::string& line) const;
  std::string readJson(std::string_view record, TableEntry& entry) const;
  std::string readCsv(std::string_view record, TableEntry& entry) const;
  std::string readVirtual(std::string_view record, TableEntry& entry) const;
  std::string readAliases(std::string_view record, TableEntry& entry) const;
  std::string readTargets(std::string_view text, std::string& members) const;
  std::string qualified(std::string_view item, EmailAddress& address) const;

  FileFormat m_format;
  const TableFormat& m_table;
  std::string m_domain;
};

// The records of a file: its lines, or for Virtual and Aliases its logical lines, without comments.
// Blank ones are left out. One thread.
class Records {
 public:
  // Both must outlive the object.
  Records(Lines& lines, const FileSyntax& syntax);

  // The next record; false at the end of the file. Throws as Lines::next(). `record` is valid until
  // the next call.
  bool next(std::string_view& record);
  // The number of the line with which the record begins, from 1.
  [[nodiscard]] std::size_t number() const noexcept { return m_number; }

 private:
  bool nextLogical(std::string_view& record);

  Lines& m_lines;
  bool m_logical;
  std::size_t m_number = 0;
  std::string m_record;
  std::string m_start;  // The line that ended the record before it.
  std::size_t m_startNumber = 0;
};

// For the help of --format: the names of the formats of `table`.
std::string formatNames(const TableFormat& table);

}  // namespace Tessel::Tool

#endif
