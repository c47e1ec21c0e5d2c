// Images on disk, for starts while the database is unavailable.
#ifndef TSL_TOOLS_SERVE_IMAGE_SNAPSHOTFILE_H
#define TSL_TOOLS_SERVE_IMAGE_SNAPSHOTFILE_H

#include <cstdint>
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

// Identifies a saved file, whatever takes its place later.
struct SnapshotId {
  std::uint64_t inode{};
  std::uint64_t size{};
  std::uint64_t number{};  // Inside the file: random.
};

// A directory with one file per table, "SQLNAME.image", which only its owner may read: a line that
// names the format and one with the name of the table; then each row, as the length of each column
// (32 bits) before its bytes, rows that cannot be read after the others; then the number of rows
// (64 bits), a random number (64 bits) and the CRC-32 of all before (32 bits); and at the end,
// which alone changes later, when the table was last seen to be equal to the file, in nanoseconds
// since 1970 (64 bits), and the CRC-32 of the random number and this time. All are in the byte
// order of the host. A file is written under another name and renamed, so it is complete or
// missing. The times of the file system do not count: those of an older file that was copied here
// are new.
//
// Only the user of the process and root may own the directory and the files, and nobody else may
// write there; otherwise each operation fails. No operation waits for what is not a plain file.
//
// Failures throw std::runtime_error or std::system_error. Any thread may call any operation, each
// table being saved by one at a time.
class SnapshotDirectory {
 public:
  // An empty `path` means no directory: names() is empty then, and nothing may be saved.
  explicit SnapshotDirectory(std::string path) : m_path(std::move(path)) {}

  [[nodiscard]] bool isWanted() const noexcept { return !m_path.empty(); }
  // Throws when the directory is not there, or others than its owner may write it.
  void check() const;
  // The SQL names of the tables that have a file.
  [[nodiscard]] std::vector<std::string> names() const;
  // Writes the file of the table, which was as `image` at `time`, in the place of an older one.
  SnapshotId save(const std::string& sqlName, const TableImage& image,
                  Clock::time_point time = Clock::now()) const;
  // Notes that the table was still as its file has it at `time`. False when the file is not the one
  // that was saved with `id`, or is not there: then it must be saved again.
  [[nodiscard]] bool confirm(const std::string& sqlName, const SnapshotId& id,
                             Clock::time_point time = Clock::now()) const;
  // Removes the file of the table, if there is one.
  void remove(const std::string& sqlName) const;
  // Reads the file of the table. A file that is not whole is refused.
  [[nodiscard]] Snapshot load(const std::string& sqlName, TableKind kind) const;

 private:
  [[nodiscard]] std::string fileOf(const std::string& sqlName) const;

  const std::string m_path;
};

// The content of the file `path`, which only the user of the process or root may own and write.
// Throws as the operations of SnapshotDirectory. Any thread.
std::string readOwnFile(const std::string& path);

}  // namespace Tessel::Serve

#endif
