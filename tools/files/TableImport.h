// Bringing the content of a table file into its table: what has to change, and the change, in one
// transaction.
#ifndef TSL_TOOLS_FILES_TABLEIMPORT_H
#define TSL_TOOLS_FILES_TABLEIMPORT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "files/ShownRows.h"
#include "files/TableFile.h"
#include "tables/AliasChange.h"
#include "tables/History.h"
#include "tables/TableFormat.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

// A row as it is in the table.
struct StoredRow {
  std::string key;
  std::string value;

  bool operator==(const StoredRow&) const = default;
};

// An entry of the file whose row has other texts.
struct ChangedRow {
  const FileEntry* entry;
  // As it is stored; the key only where it is spelled differently.
  StoredRow before;

  bool operator==(const ChangedRow&) const = default;

  // The key of the row as it was.
  [[nodiscard]] std::string formerKey() const {
    return before.key.empty() ? entry->key.address() : before.key;
  }
};

// One thread. Failures of the database pass as Exception until the caller asks for the end of the
// transaction; the table is as before then.
class TableImport {
 public:
  // What to do with rows that the file does not mention: those of `domain` in any spelling, or all
  // where it is empty, are removed if `removes`; the others stay.
  struct Rest {
    bool removes;
    std::string domain;
    // Where it is given, the file is what a person has made of these rows: they are removed, and no
    // other row is touched.
    ShownRows* shown = nullptr;
  };

  // Connects. `format`, `file` and the rows of `rest` must outlive the import; `table` is the SQL
  // name, which must be known to be safe.
  TableImport(const TableFormat& format, std::string table, const TableFile& file,
              const Rest& rest);

  // Whether an import may make alias loops.
  enum class Loops { Refuse, Allow };

  // Makes compare() refuse, in a table of aliases, all-users markers that would be taken for
  // addresses, and alias loops through a row that it would write; with `warns` it reports those
  // that were there before. Must be called before it.
  void refuseHarm(Loops loops, bool warns);

  // Compares the file with the table. With `toWrite` a transaction begins, and the rows are locked
  // until its end. Throws Failure: `BadData` when an entry does not fit its column, or its public
  // address is that of a row which the file does not mention, or its row is not among those that
  // were shown, or there would be harm as above; `Unavailable` when these have changed meanwhile.
  void compare(bool toWrite, Progress& progress);

  [[nodiscard]] const std::vector<const FileEntry*>& added() const { return m_added; }
  [[nodiscard]] const std::vector<ChangedRow>& changed() const { return m_changed; }
  [[nodiscard]] const std::vector<StoredRow>& removed() const { return m_removed; }
  [[nodiscard]] std::size_t left() const { return m_left; }
  // True when `other`, a comparison of the same file, found the same.
  [[nodiscard]] bool isLike(const TableImport& other) const;
  // Rules that write() has removed with their aliases.
  [[nodiscard]] std::size_t removedRules() const { return m_removedRules; }

  // Writes and records what compare() found; `progress` counts the rows. Throws Failure, `BadData`,
  // when the server takes the entry for another row.
  void write(Progress& progress);
  // Commits. Throws Exception: where isOutcomeUnknown() is true it may have taken effect, otherwise
  // it has not.
  void commit();
  // Of the record, after commit(); 0 when nothing was recorded.
  [[nodiscard]] std::uint64_t number() const { return m_change ? m_change->number() : 0; }

 private:
  using Entries = std::vector<const FileEntry*>;

  // The row of an entry.
  struct Match {
    bool present = false;
    bool equal = false;
    StoredRow before;  // As in ChangedRow.
  };

  void checkSizes();
  void warn(std::size_t line, const std::string& why) const;
  [[nodiscard]] std::size_t placeOf(const FileEntry& entry) const;
  void meet(std::string_view key, std::string_view value, std::vector<Match>& matches,
            LineFaults& faults);
  void meetHidden(const FileEntry& entry, std::string_view key, std::string_view value,
                  LineFaults& faults);
  void meetUnmentioned(std::string_view key, std::string_view value, LineFaults& faults);
  void sortOut(std::vector<Match>& matches);
  void checkLoops();
  void checkMarkers();
  void note(const std::string& key, const std::optional<std::string>& before,
            const std::optional<std::string>& after);
  void noteAll();
  void deleteAll(const std::vector<std::string>& keys);
  void insertAll(const Entries& entries, const std::string& end);
  void insertBatch(const Entries& entries, std::size_t first, std::size_t last,
                   const std::string& statement, const std::string& end);
  void respell(const ChangedRow& row);
  [[nodiscard]] std::string insertion() const;
  [[nodiscard]] std::string valuesOf(const FileEntry& entry) const;
  template <class Write>
  void writeOne(const FileEntry& entry, Write write);

  const TableFormat& m_format;
  std::string m_table;
  const TableFile& m_file;
  bool m_removes;
  std::string m_domain;  // The comparisonDomain() of the rows to remove.
  ShownRows* m_shown;    // As in Rest.
  Database::Connection m_connection;
  std::optional<RecordedChange> m_change;
  Entries m_added;
  std::vector<ChangedRow> m_changed;
  std::vector<StoredRow> m_removed;
  std::optional<AliasChange> m_aliases;  // What becomes of them, unless nobody asks.
  Loops m_loops = Loops::Allow;
  bool m_warns = true;
  std::size_t m_left = 0;
  std::size_t m_removedRules = 0;
  std::size_t m_bytes = 0;         // Of one statement, unless a single row is longer.
  Progress* m_progress = nullptr;  // While write() runs.
};

}  // namespace Tessel::Tool

#endif
