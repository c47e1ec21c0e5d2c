// A table file, read and checked as a whole.
#ifndef TSL_TOOLS_FILES_TABLEFILE_H
#define TSL_TOOLS_FILES_TABLEFILE_H

#include <cstddef>
#include <string>
#include <vector>

#include "files/FileSyntax.h"
#include "tables/SpellingIndex.h"
#include "tables/TableFormat.h"
#include "tables/WriteRule.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

// A good line.
struct FileEntry : TableEntry {
  std::size_t number = 0;  // Of the line, from 1.
};

// What is wrong with lines of a file, each with its place: "FILE:LINE: reason".
class LineFaults {
 public:
  explicit LineFaults(std::string file) : m_file(std::move(file)) {}

  void add(std::size_t line, const std::string& reason);
  [[nodiscard]] bool isEmpty() const { return m_faults.empty(); }
  // Reports the first hundred in the order of the lines, and how many there are beyond them. Throws
  // Failure, `BadData`, when there is any: `why` says what came of it.
  void refuse(const std::string& why);

 private:
  struct Fault {
    std::size_t line;
    std::string reason;
  };

  std::string m_file;
  std::vector<Fault> m_faults;
  std::size_t m_count = 0;
};

// One thread.
class TableFile {
 public:
  // How --format and --domain say that the file is written; empty texts where they say nothing.
  struct Options {
    std::string format;
    std::string domain;
    LocalNames localNames = LocalNames::Refuse;
  };

  // Reads the file `path`, "-" being standard input, in the format that `options` name, or that it
  // looks like; `progress` counts its lines. Throws Failure, `BadData`, when it cannot be read or a
  // line is bad, after each was reported; and what FileSyntax::named() and detected() throw.
  TableFile(const TableFormat& format, const std::string& path, const Options& options,
            Progress& progress);

  // For messages.
  [[nodiscard]] const std::string& name() const { return m_name; }
  // The lines in the order of their keys. No two keys are spellings of one address, nor are two
  // public addresses.
  [[nodiscard]] const std::vector<FileEntry>& entries() const { return m_entries; }
  // The entry with this key in any spelling, or null.
  [[nodiscard]] const FileEntry* withKey(const EmailAddress& key) const;
  // The entry with this public address in any spelling, or null.
  [[nodiscard]] const FileEntry* withPublic(const EmailAddress& address) const;

 private:
  // Where the entries of some addresses are, in any spelling.
  struct Places {
    SpellingIndex addresses;
    std::vector<std::size_t> entries;  // By the number of the address.
  };

  void read(Lines& lines, FileSyntax& syntax, LineFaults& faults, Progress& progress,
            LocalNames localNames);
  void findDoubles(const TableFormat& format, LineFaults& faults);
  void note(Places& places, std::size_t entry, const EmailAddress& address, const char* what,
            LineFaults& faults) const;
  [[nodiscard]] const FileEntry* with(const Places& places, const EmailAddress& address) const;

  std::string m_name;
  std::vector<FileEntry> m_entries;
  Places m_byKey;
  Places m_byPublic;  // Of masks only.
};

}  // namespace Tessel::Tool

#endif
