// Images on disk, for starts while the database is unavailable.
#ifndef TSL_TOOLS_SERVE_IMAGE_SNAPSHOTFILE_H
#define TSL_TOOLS_SERVE_IMAGE_SNAPSHOTFILE_H

#include <string>
#include <vector>

#include "serve/base/Settings.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// An image as it was saved, and when it was last known to be that of the table.
struct Snapshot {
  ImagePointer image;
  Clock::time_point confirmed;
};

// A directory with one file per table, "SQLNAME.image", which only its owner may read: a line that
// names the format and one with the name of the table; then each row, as the length of each column
// (32 bits) before its bytes, rows that cannot be read after the others; and at the end the number
// of rows (64 bits) and the CRC-32 of all before (32 bits), all in the byte order of the host. A
// file is written under another name and renamed, so it is complete or missing. The time of its
// last change is when the table was last seen to be equal to it.
//
// Failures throw std::runtime_error or std::system_error. Any thread may call any operation, each
// table being saved by one at a time.
class SnapshotDirectory {
 public:
  // An empty `path` means no directory: names() is empty then, and nothing may be saved.
  explicit SnapshotDirectory(std::string path) : m_path(std::move(path)) {}

  [[nodiscard]] bool isWanted() const noexcept { return !m_path.empty(); }
  // The SQL names of the tables that have a file.
  [[nodiscard]] std::vector<std::string> names() const;
  // Writes the file of the table, in the place of an older one.
  void save(const std::string& sqlName, const TableImage& image) const;
  // Notes that the table is still as its file has it.
  void confirm(const std::string& sqlName) const;
  // Removes the file of the table, if there is one.
  void remove(const std::string& sqlName) const;
  // Reads the file of the table. A file that is not whole is refused.
  [[nodiscard]] Snapshot load(const std::string& sqlName, TableKind kind) const;

 private:
  [[nodiscard]] std::string fileOf(const std::string& sqlName) const;

  const std::string m_path;
};

}  // namespace Tessel::Serve

#endif
