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
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <boost/crc.hpp>

#include "disk/AtomicFile.h"

namespace Tessel::Serve {

namespace {

constexpr std::string_view s_format = "tsl-address-map image 1\n";
constexpr std::string_view s_ending = ".image";

[[noreturn]] void s_fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A file that is being written, with a checksum at its end.
class NewFile {
 public:
  explicit NewFile(const std::string& path) : m_file(path, path + ".new", 0600) {}

  void write(std::string_view bytes) {
    m_file.write(bytes);
    m_crc.process_bytes(bytes.data(), bytes.size());
  }

  template <class Number>
  void writeNumber(Number number) {
    write(std::string_view(reinterpret_cast<const char*>(&number), sizeof(number)));
  }

  void finish() {
    writeNumber<std::uint32_t>(m_crc.checksum());
    m_file.finish();
  }

 private:
  Tool::AtomicFile m_file;
  boost::crc_32_type m_crc;
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
    Number number = 0;
    std::memcpy(&number, take(sizeof(number)).data(), sizeof(number));
    return number;
  }

  [[nodiscard]] std::size_t left() const { return m_bytes.size(); }

 private:
  std::string_view m_bytes;
};

std::string s_read(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) s_fail(path);
  std::string content(static_cast<std::size_t>(file.tellg()), '\0');
  file.seekg(0);
  if (!file.read(content.data(), static_cast<std::streamsize>(content.size()))) s_fail(path);
  return content;
}

// The content without its end, when that is right. `count` gets the number of rows.
std::string_view s_checked(std::string_view content, std::uint64_t& count) {
  constexpr std::size_t s_end = sizeof(std::uint64_t) + sizeof(std::uint32_t);
  if (content.size() < s_end) throw std::runtime_error("the file is cut off");
  const std::size_t size = content.size() - sizeof(std::uint32_t);
  boost::crc_32_type crc;
  crc.process_bytes(content.data(), size);
  Bytes end(content.substr(content.size() - s_end));
  count = end.takeNumber<std::uint64_t>();
  if (end.takeNumber<std::uint32_t>() != crc.checksum()) {
    throw std::runtime_error("the file is damaged");
  }
  return content.substr(0, content.size() - s_end);
}

// When the file was last changed. A time in the future is taken as now.
Clock::time_point s_changed(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) s_fail(path);
  const std::chrono::nanoseconds since = std::chrono::seconds(status.st_mtim.tv_sec) +
                                         std::chrono::nanoseconds(status.st_mtim.tv_nsec);
  const auto age = std::chrono::system_clock::now().time_since_epoch() - since;
  return Clock::now() - std::max(std::chrono::nanoseconds(0), std::chrono::nanoseconds(age));
}

}  // namespace

std::vector<std::string> SnapshotDirectory::names() const {
  std::vector<std::string> names;
  if (!isWanted()) return names;
  for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with(s_ending)) names.push_back(name.substr(0, name.size() - s_ending.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

void SnapshotDirectory::save(const std::string& sqlName, const TableImage& image) const {
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
  file.finish();
}

void SnapshotDirectory::confirm(const std::string& sqlName) const {
  if (utimensat(AT_FDCWD, fileOf(sqlName).c_str(), nullptr, 0) != 0) s_fail(fileOf(sqlName));
}

void SnapshotDirectory::remove(const std::string& sqlName) const {
  if (unlink(fileOf(sqlName).c_str()) != 0 && errno != ENOENT) s_fail(fileOf(sqlName));
}

Snapshot SnapshotDirectory::load(const std::string& sqlName, TableKind kind) const {
  const std::string path = fileOf(sqlName);
  const Clock::time_point confirmed = s_changed(path);
  const std::string content = s_read(path);
  std::uint64_t count = 0;
  Bytes bytes(s_checked(content, count));
  if (bytes.take(std::min(bytes.left(), s_format.size())) != s_format) {
    throw std::runtime_error("the file has another format");
  }
  if (bytes.take(std::min(bytes.left(), sqlName.size() + 1)) != sqlName + "\n") {
    throw std::runtime_error("the file is that of another table");
  }
  const auto image = std::make_shared<const TableImage>(kind, [&](const TakeRow& take) {
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::string_view first = bytes.take(bytes.takeNumber<std::uint32_t>());
      const std::string_view second = bytes.take(bytes.takeNumber<std::uint32_t>());
      take(first, second);
    }
  });
  return {image, confirmed};
}

std::string SnapshotDirectory::fileOf(const std::string& sqlName) const {
  return m_path + "/" + sqlName + std::string(s_ending);
}

}  // namespace Tessel::Serve
