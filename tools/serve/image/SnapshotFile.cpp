// Images on disk.
#include "serve/image/SnapshotFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <boost/crc.hpp>

#include "disk/AtomicFile.h"
#include "disk/Descriptor.h"

namespace Tessel::Serve {

namespace {

constexpr std::string_view s_format = "tsl-address-map image 2\n";
constexpr std::string_view s_suffix = ".image";
constexpr mode_t s_mode = S_IRUSR | S_IWUSR;

[[noreturn]] void s_fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A file that is being written, with a checksum at its end.
class NewFile {
 public:
  explicit NewFile(const std::string& path) : m_file(path, path + ".new", s_mode) {
    // Whatever the umask is.
    if (fchmod(m_file.descriptor(), s_mode) != 0) s_fail(path);
  }

  [[nodiscard]] std::uint64_t size() const { return m_size; }

  void write(std::string_view bytes) {
    m_file.write(bytes);
    m_size += bytes.size();
    m_crc.process_bytes(bytes.data(), bytes.size());
  }

  template <class Number>
  void writeNumber(Number number) {
    write(std::string_view(reinterpret_cast<const char*>(&number), sizeof(number)));
  }

  // Ends the part that does not change.
  void writeChecksum() { writeNumber<std::uint32_t>(m_crc.checksum()); }

  // Returns the inode of the file.
  std::uint64_t finish() {
    struct stat status {};
    if (fstat(m_file.descriptor(), &status) != 0) s_fail("fstat");
    m_file.finish();
    return status.st_ino;
  }

 private:
  Tool::AtomicFile m_file;
  boost::crc_32_type m_crc;
  std::uint64_t m_size = 0;
};

// Reads a file from its start to its end.
class Bytes {
 public:
  explicit Bytes(std::string_view bytes) : m_bytes(bytes) {}

  std::string_view take(std::size_t size) {
    if (size > m_bytes.size()) throw std::runtime_error("the file is cut off");
    const std::string_view taken = m_bytes.substr(0, size);
    m_bytes.remove_prefix(size);
    return taken;
  }

  template <class Number>
  Number takeNumber() {
    Number number{};
    std::memcpy(&number, take(sizeof(number)).data(), sizeof(number));
    return number;
  }

  [[nodiscard]] std::size_t left() const { return m_bytes.size(); }

 private:
  std::string_view m_bytes;
};

// Refuses what another user may have written.
void s_checkOwner(const struct stat& status, const std::string& path) {
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    throw std::runtime_error(path + " belongs to another user");
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error(path + " can be written by other users");
  }
}

// A file of the directory, opened without waiting for anything and without following a link.
class OldFile {
 public:
  OldFile(const std::string& path, int access)
      : m_path(path), m_descriptor(open(path.c_str(), access | s_flags)) {
    if (!m_descriptor.isOpen()) s_fail(path);
    struct stat status {};
    if (fstat(m_descriptor.get(), &status) != 0) s_fail(path);
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + " is not a regular file");
    s_checkOwner(status, path);
    m_size = static_cast<std::uint64_t>(status.st_size);
    m_inode = status.st_ino;
  }

  [[nodiscard]] std::uint64_t size() const { return m_size; }
  [[nodiscard]] std::uint64_t inode() const { return m_inode; }

  [[nodiscard]] std::string read(std::uint64_t from) const {
    std::string content(m_size - from, '\0');
    for (std::size_t done = 0; done < content.size();) {
      const ssize_t count = pread(m_descriptor.get(), content.data() + done, content.size() - done,
                                  static_cast<off_t>(from + done));
      if (count == -1) s_fail(m_path);
      if (count == 0) throw std::runtime_error("the file is cut off");
      done += static_cast<std::size_t>(count);
    }
    return content;
  }

  void write(std::string_view bytes, std::uint64_t from) const {
    const ssize_t count =
        pwrite(m_descriptor.get(), bytes.data(), bytes.size(), static_cast<off_t>(from));
    if (count != static_cast<ssize_t>(bytes.size())) s_fail(m_path);
  }

 private:
  static constexpr int s_flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

  const std::string m_path;
  const Tool::Descriptor m_descriptor;
  std::uint64_t m_size{};
  std::uint64_t m_inode{};
};

template <class Number>
std::string_view s_bytes(const Number& number) {
  return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

std::uint32_t s_checksum(std::string_view bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

// The end of a file, which changes: `time`, with a checksum that fits the file only.
std::string s_timeStamp(std::uint64_t number, Clock::time_point time) {
  const auto wall = std::chrono::system_clock::now() -
                    std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - time);
  const std::int64_t nanoseconds = std::chrono::nanoseconds(wall.time_since_epoch()).count();
  const std::string stamp(s_bytes(nanoseconds));
  const std::uint32_t sum = s_checksum(std::string(s_bytes(number)) + stamp);
  return stamp + std::string(s_bytes(sum));
}

constexpr std::size_t s_stampSize = sizeof(std::int64_t) + sizeof(std::uint32_t);

// What is behind the rows of a file.
struct Ending {
  std::uint64_t count{};
  std::uint64_t number{};
  std::uint32_t checksum{};
  Clock::time_point time;
  static constexpr std::size_t size =
      2 * sizeof(std::uint64_t) + sizeof(std::uint32_t) + s_stampSize;
};

// The end of `content`, when its own checksum is right. A time in the future is taken as now.
Ending s_ending(std::string_view content) {
  if (content.size() < Ending::size) throw std::runtime_error("the file is cut off");
  Bytes end(content.substr(content.size() - Ending::size));
  Ending ending;
  ending.count = end.takeNumber<std::uint64_t>();
  ending.number = end.takeNumber<std::uint64_t>();
  ending.checksum = end.takeNumber<std::uint32_t>();
  const std::string_view stamp = end.take(sizeof(std::int64_t));
  const std::uint32_t sum = s_checksum(std::string(s_bytes(ending.number)).append(stamp));
  if (end.takeNumber<std::uint32_t>() != sum) throw std::runtime_error("the file is damaged");
  const std::chrono::nanoseconds since(Bytes(stamp).takeNumber<std::int64_t>());
  // The age would be beyond all numbers.
  if (since < std::chrono::nanoseconds::zero()) throw std::runtime_error("the file is damaged");
  const std::chrono::nanoseconds age = std::chrono::system_clock::now().time_since_epoch() - since;
  ending.time = Clock::now() - std::max(std::chrono::nanoseconds::zero(), age);
  return ending;
}

std::uint64_t s_random() {
  std::random_device device;
  return (std::uint64_t{device()} << 32U) | device();
}

}  // namespace

std::vector<std::string> SnapshotDirectory::names() const {
  std::vector<std::string> names;
  if (!isWanted()) return names;
  check();
  for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with(s_suffix)) names.push_back(name.substr(0, name.size() - s_suffix.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

SnapshotId SnapshotDirectory::save(const std::string& sqlName, const TableImage& image,
                                   Clock::time_point time) const {
  check();
  NewFile file(fileOf(sqlName));
  file.write(s_format);
  file.write(sqlName + "\n");
  const auto writeRow = [&file](std::string_view first, std::string_view second) {
    for (const std::string_view column : {first, second}) {
      file.writeNumber(static_cast<std::uint32_t>(column.size()));
      file.write(column);
    }
  };
  // Those that cannot be read cannot be read from the file either, so that their addresses stay
  // unknown.
  std::uint64_t count = 0;
  for (const RowStore* const rows : {&image.rows(), &image.brokenRows().rows()}) {
    for (RowStore::Id id = 0; id < rows->size(); ++id) writeRow(rows->first(id), rows->second(id));
    count += rows->size();
  }
  file.writeNumber<std::uint64_t>(count);
  SnapshotId id;
  id.number = s_random();
  file.writeNumber(id.number);
  file.writeChecksum();
  file.write(s_timeStamp(id.number, time));
  id.size = file.size();
  id.inode = file.finish();
  return id;
}

bool SnapshotDirectory::confirm(const std::string& sqlName, const SnapshotId& id,
                                Clock::time_point time) const try {
  check();
  const OldFile file(fileOf(sqlName), O_RDWR);
  if (file.inode() != id.inode || file.size() != id.size) return false;
  if (s_ending(file.read(file.size() - Ending::size)).number != id.number) return false;
  file.write(s_timeStamp(id.number, time), file.size() - s_stampSize);
  return true;
} catch (const std::runtime_error&) {
  // Saving it again reports what is wrong.
  return false;
}

void SnapshotDirectory::remove(const std::string& sqlName) const {
  if (unlink(fileOf(sqlName).c_str()) != 0 && errno != ENOENT) s_fail(fileOf(sqlName));
}

Snapshot SnapshotDirectory::load(const std::string& sqlName, TableKind kind) const {
  check();
  const std::string content = OldFile(fileOf(sqlName), O_RDONLY).read(0);
  const Ending ending = s_ending(content);
  const std::size_t size = content.size() - s_stampSize - sizeof(ending.checksum);
  if (s_checksum(std::string_view(content).substr(0, size)) != ending.checksum) {
    throw std::runtime_error("the file is damaged");
  }
  Bytes bytes(std::string_view(content).substr(0, content.size() - Ending::size));
  if (bytes.take(std::min(bytes.left(), s_format.size())) != s_format) {
    throw std::runtime_error("the file has another format");
  }
  if (bytes.take(std::min(bytes.left(), sqlName.size() + 1)) != sqlName + "\n") {
    throw std::runtime_error("the file is that of another table");
  }
  const auto image = std::make_shared<const TableImage>(kind, [&](const TakeRow& take) {
    for (std::uint64_t i = 0; i < ending.count; ++i) {
      const std::string_view first = bytes.take(bytes.takeNumber<std::uint32_t>());
      const std::string_view second = bytes.take(bytes.takeNumber<std::uint32_t>());
      take(first, second);
    }
  });
  if (bytes.left() != 0) throw std::runtime_error("the file is damaged");
  return {image, ending.time};
}

std::string readOwnFile(const std::string& path) {
  return OldFile(path, O_RDONLY).read(0);
}

void SnapshotDirectory::check() const {
  struct stat status {};
  if (stat(m_path.c_str(), &status) != 0) s_fail(m_path);
  s_checkOwner(status, m_path);
}

std::string SnapshotDirectory::fileOf(const std::string& sqlName) const {
  return m_path + "/" + sqlName + std::string(s_suffix);
}

}  // namespace Tessel::Serve
