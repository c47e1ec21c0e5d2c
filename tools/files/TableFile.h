// A table file, read and checked as a whole.
#ifndef TSL_TOOLS_FILES_TABLEFILE_H
#define TSL_TOOLS_FILES_TABLEFILE_H

#include <cstddef>
#include <string>
#include <vector>

#include "files/FileSyntax.h"
#include "files/ShownRows.h"
#include "tables/AddressIndex.h"
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
  struct Fault {
    std::size_t line;
    std::string reason;
  };

  // `shown` is how many of them are reported.
  explicit LineFaults(std::string file, std::size_t shown = 100)
      : m_file(std::move(file)), m_shown(shown) {}

  void add(std::size_t line, const std::string& reason);
  [[nodiscard]] bool isEmpty() const { return m_faults.empty(); }
  // Reports them in the order of the lines, and how many there are beyond those that are shown.
  void report();
  // The same. Throws Failure, `BadData`, when there is any: `why` says what came of it, `hint` what
  // to do.
  void refuse(const std::string& why,
              const char* hint = "nothing was written; correct the lines and try again");
  // At least those that are shown; in the order of the lines after report().
  [[nodiscard]] const std::vector<Fault>& all() const { return m_faults; }

 private:
  std::string m_file;
  std::size_t m_shown;
  std::vector<Fault> m_faults;
  std::size_t m_count = 0;
};

// One thread.
class TableFile {
 public:
  // How --format and the other options say that the file is written, and which of its lines are
  // good; empty texts where they say nothing.
  struct Options {
    std::string format;
    std::string defaultDomain;  // Of names without one.
    LocalNames localNames = LocalNames::Refuse;
    std::string columns{};  // As --columns has them; for csv, which they mean without a format.
    bool skipBad = false;   // Leave bad lines out, and the later of two lines of one address.
    // Take two spellings of one address for two addresses, unless they differ in letter case only.
    bool newSpelling = false;
    // A line of another domain than this, in any spelling, is bad. The format `aliases` also takes
    // it for `defaultDomain`.
    std::string domain{};
    // Rows that a person is changing: what is left as it was shown is good.
    const ShownRows* shown = nullptr;
  };

  // Reads the file `path`, "-" being standard input, in the format that `options` name, or that it
  // looks like; `progress` counts its lines. Reports bad lines. Throws Failure, `BadData`, when it
  // cannot be read, or a line is bad and not to be left out; and what FileSyntax::named() and
  // detected() throw.
  TableFile(const TableFormat& format, const std::string& path, const Options& options,
            Progress& progress);

  // For messages.
  [[nodiscard]] const std::string& name() const { return m_name; }
  // The lines in the order of their keys. No two keys are of one address, nor are two public
  // addresses.
  [[nodiscard]] const std::vector<FileEntry>& entries() const { return m_entries; }
  // The bad lines that were left out.
  [[nodiscard]] const std::vector<LineFaults::Fault>& skipped() const { return m_skipped; }
  // The entry with this key, or null: in any spelling, unless the options say otherwise.
  [[nodiscard]] const FileEntry* withKey(const EmailAddress& key) const;
  // The entry with this public address, or null, likewise.
  [[nodiscard]] const FileEntry* withPublic(const EmailAddress& address) const;

 private:
  // Where the entries of some addresses are.
  struct Places {
    AddressIndex addresses;            // What textOf() makes of them.
    std::vector<std::size_t> entries;  // By the number of the address.
  };

  void read(Lines& lines, FileSyntax& syntax, LineFaults& faults, Progress& progress,
            const Options& options);
  void leaveDoublesOut(const TableFormat& format, LineFaults& faults);
  std::size_t* placeOf(Places& places, const FileEntry& entry, const EmailAddress& address,
                       const char* what, LineFaults& faults) const;
  void sort();
  // What an address is found by.
  [[nodiscard]] std::string textOf(const EmailAddress& address) const;
  [[nodiscard]] const FileEntry* with(const Places& places, const EmailAddress& address) const;

  std::string m_name;
  bool m_newSpelling;
  std::vector<LineFaults::Fault> m_skipped;
  std::vector<FileEntry> m_entries;
  Places m_byKey;
  Places m_byPublic;  // Of masks only.
};

}  // namespace Tessel::Tool

#endif
