// The formats of table files: how a row is written in each of them, and read.
#ifndef TSL_TOOLS_FILES_FILESYNTAX_H
#define TSL_TOOLS_FILES_FILESYNTAX_H

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "files/Lines.h"
#include "tables/RowReader.h"
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
  // `table` must outlive the object.
  FileSyntax(FileFormat format, const TableFormat& table)
      : m_reader(table.kind), m_format(format), m_table(table) {}
  virtual ~FileSyntax() = default;
  FileSyntax(const FileSyntax&) = delete;
  FileSyntax& operator=(const FileSyntax&) = delete;

  // The format that the option --format names. `domain` is that of names without one; may be empty.
  // Throws Failure, `Usage`, for what is not a format of the table, and for a domain where the
  // format takes none.
  static std::unique_ptr<FileSyntax> named(const std::string& name, const TableFormat& table,
                                           const std::string& domain);
  // The format that the first lines of `lines` are in; they stay to be read. Native when they are
  // in none. Throws Failure: `BadData` when they may be in several, and `Usage` for a domain as
  // above.
  static std::unique_ptr<FileSyntax> detected(Lines& lines, const std::string& file,
                                              const TableFormat& table, const std::string& domain);

  [[nodiscard]] FileFormat format() const noexcept { return m_format; }
  // The name of the format, as --format takes it.
  [[nodiscard]] const char* name() const noexcept;
  // True for aliases, whose values are members.
  [[nodiscard]] bool hasMembers() const noexcept { return !m_table.hasPublic; }
  // True when its records are logical lines.
  [[nodiscard]] bool isLogical() const noexcept {
    return m_format == FileFormat::Virtual || m_format == FileFormat::Aliases;
  }
  // The line before the rows, with the CR it ends with, if any; empty when there is none.
  [[nodiscard]] virtual std::string header() const { return ""; }
  // Reads the header as another program may have written it. Returns why it is not one, if so.
  [[nodiscard]] virtual std::optional<std::string> readHeader(std::string_view record);
  // Has the columns NAME,NAME of the header be read: that of the keys, and that of the values.
  // Throws Failure, `Usage`, for a format without a header, and for what is not two names.
  virtual void setColumns(const std::string& names);
  // True for a record that is part of the format and has no row.
  [[nodiscard]] virtual bool isFiller(std::string_view record) const;
  // Writes the line of a good row, without its LF. Returns why the format cannot express it, if it
  // cannot.
  virtual std::optional<Fault> write(const TableEntry& entry, std::string& line) const = 0;
  // Reads a record, which is not blank. Returns what is wrong, if anything is.
  std::optional<Fault> read(std::string_view record, TableEntry& entry);

 protected:
  [[nodiscard]] const TableFormat& table() const noexcept { return m_table; }
  // For a key whose members are addresses already.
  std::optional<Fault> readKey(std::string_view text, TableEntry& entry);
  std::optional<Fault> setMembers(const std::set<EmailAddress>& members, TableEntry& entry);

  RowReader m_reader;

 private:
  // As read(), without a NUL.
  virtual std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) = 0;

  FileFormat m_format;
  const TableFormat& m_table;
};

// The formats, each in a source of its own. `domain` is as above.
std::unique_ptr<FileSyntax> makeNativeSyntax(const TableFormat& table);
std::unique_ptr<FileSyntax> makeJsonSyntax(const TableFormat& table);
std::unique_ptr<FileSyntax> makeCsvSyntax(const TableFormat& table);
std::unique_ptr<FileSyntax> makeVirtualSyntax(const TableFormat& table, std::string domain);
std::unique_ptr<FileSyntax> makeAliasesSyntax(const TableFormat& table, std::string domain);

// The JSON object in a line of one, or of a list with one object per line as 'list --json' writes
// it; empty when the line only begins or ends such a list.
std::string_view jsonObjectIn(std::string_view line);

// What it means that the format has no such line, or cannot express the row.
Fault formatFault(std::string why);

// For the help of --format: the names of the formats of `table`.
std::string formatNames(const TableFormat& table);

}  // namespace Tessel::Tool

#endif
