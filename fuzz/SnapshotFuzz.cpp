// Fuzz target of the files that the lookup service keeps its tables in: what is saved is loaded
// again, whatever happens to the file it is refused or has the same rows, and loading takes no more
// memory than the file is worth. The first byte of an input says what the rest is: rows, with the
// damage that is done to their file, or a file, with or without right checksums.
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/crc.hpp>

#include "fuzz/Fuzz.h"
#include "fuzz/ScratchDirectory.h"
#include "serve/image/SnapshotFile.h"

using Tessel::Fuzz::asText;
using Tessel::Fuzz::require;
using Tessel::Fuzz::ScratchDirectory;
using Tessel::Serve::Clock;
using Tessel::Serve::RowStore;
using Tessel::Serve::SnapshotDirectory;
using Tessel::Serve::SnapshotId;
using Tessel::Serve::TableImage;
using Tessel::Serve::TableKind;
using Tessel::Serve::TakeRow;

namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

constexpr std::string_view s_format = "tsl-address-map image 2\n";
// Behind the rows: their number, the random number, a checksum; the time and its checksum.
constexpr std::size_t s_fixedEnd = 20;
constexpr std::size_t s_stamp = 12;
// Pages that loading may touch for the first time; inputs are far smaller.
constexpr long s_mostKilobytes = 48L * 1024;

Rows s_rows(const TableImage& image) {
  Rows rows;
  for (const RowStore* const store : {&image.rows(), &image.brokenRows().rows()}) {
    for (RowStore::Id id = 0; id < store->size(); ++id) {
      rows.emplace_back(store->first(id), store->second(id));
    }
  }
  return rows;
}

Rows s_sorted(Rows rows) {
  std::sort(rows.begin(), rows.end());
  return rows;
}

// The most memory that the process ever had.
long s_peak() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// The one file of a kind of table, in a directory that this process owns.
class File {
 public:
  explicit File(TableKind kind)
      : m_kind(kind), m_name(kind == TableKind::Alias ? "alias" : "mask") {
    static_cast<void>(save({m_kind, [](const TakeRow& /*take*/) {}}));
  }

  [[nodiscard]] TableKind kind() const { return m_kind; }
  [[nodiscard]] const std::string& name() const { return m_name; }

  [[nodiscard]] SnapshotId save(const TableImage& image) const {
    return m_files.save(m_name, image);
  }
  [[nodiscard]] bool confirm(const SnapshotId& id) const { return m_files.confirm(m_name, id); }

  [[nodiscard]] std::string content() const {
    std::ostringstream all;
    all << std::ifstream(path(), std::ios::binary).rdbuf();
    return all.str();
  }
  // In the place of the old content: the permissions stay.
  void setContent(std::string_view content) const {
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << content;
  }

  // The rows of the file; nothing when it is refused.
  [[nodiscard]] std::optional<Rows> load() const {
    const long before = s_peak();
    std::optional<Rows> rows;
    try {
      const auto snapshot = m_files.load(m_name, m_kind);
      require(snapshot.confirmed <= Clock::now(), "no time in the future");
      rows = s_rows(*snapshot.image);
    } catch (const std::runtime_error& refusal) {
      require(*refusal.what() != '\0', "a refusal says why");
    }
    require(s_peak() - before < s_mostKilobytes, "no memory beyond the size of the file");
    return rows;
  }

 private:
  [[nodiscard]] std::string path() const { return m_scratch.path() + "/" + m_name + ".image"; }

  const TableKind m_kind;
  const std::string m_name;
  const ScratchDirectory m_scratch;
  const SnapshotDirectory m_files{m_scratch.path()};
};

const File& s_fileOf(TableKind kind) {
  static const File s_alias(TableKind::Alias);
  static const File s_mask(TableKind::Mask);
  return kind == TableKind::Alias ? s_alias : s_mask;
}

std::uint32_t s_checksum(std::string_view bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

template <class Number>
Number s_number(std::string_view bytes, std::size_t at) {
  Number number = 0;
  std::memcpy(&number, bytes.substr(at).data(), sizeof(number));
  return number;
}

void s_setNumber(std::string& bytes, std::size_t at, std::uint32_t number) {
  std::memcpy(bytes.data() + at, &number, sizeof(number));
}

// Gives the end of `content` the right checksums, if there is room for one.
void s_fixChecksums(std::string& content) {
  if (content.size() < s_fixedEnd + s_stamp) return;
  const std::size_t stamp = content.size() - s_stamp;
  s_setNumber(content, stamp - 4, s_checksum(std::string_view(content).substr(0, stamp - 4)));
  const std::string timed = content.substr(stamp - 12, 8) + content.substr(stamp, 8);
  s_setNumber(content, stamp + 8, s_checksum(timed));
}

// The rows by the words of the format, of a file whose checksums are right; nothing unless they
// fill the file.
std::optional<Rows> s_expected(std::string_view content, const std::string& name) {
  const std::string start = std::string(s_format) + name + "\n";
  if (content.size() < start.size() + s_fixedEnd + s_stamp) return std::nullopt;
  if (!content.starts_with(start)) return std::nullopt;
  const std::size_t end = content.size() - s_fixedEnd - s_stamp;
  if (s_number<std::int64_t>(content, end + s_fixedEnd) < 0) return std::nullopt;
  std::size_t at = start.size();
  std::vector<std::string> columns;
  while (at != end) {
    if (end - at < 4) return std::nullopt;
    const std::size_t size = s_number<std::uint32_t>(content, at);
    at += 4;
    if (size > end - at) return std::nullopt;
    columns.emplace_back(content.substr(at, size));
    at += size;
  }
  const bool isWhole = columns.size() % 2 == 0;
  if (!isWhole || columns.size() / 2 != s_number<std::uint64_t>(content, end)) return std::nullopt;
  Rows rows;
  for (std::size_t i = 0; i < columns.size(); i += 2) rows.emplace_back(columns[i], columns[i + 1]);
  return rows;
}

// A file from outside: it has the rows that it says, or is refused.
void s_checkFile(const File& file, std::string content, bool isFixed) {
  if (isFixed) s_fixChecksums(content);
  std::string right = content;
  s_fixChecksums(right);
  file.setContent(content);
  const auto rows = file.load();
  const auto expected = right == content ? s_expected(content, file.name()) : std::nullopt;
  require(rows.has_value() == expected.has_value(), "whole files are read, others refused",
          content);
  if (!rows) return;
  require(s_sorted(*rows) == s_sorted(*expected), "the rows of the file", content);
}

// Rows of two columns each, "FIRST\x1fSECOND\x1e", in a file that is saved and then damaged: four
// bytes in front say how.
void s_checkSaved(const File& file, std::string_view input) {
  if (input.size() < 4) return;
  const std::string_view how = input.substr(0, 4);
  Rows rows;
  for (input.remove_prefix(4); !input.empty();) {
    const std::string_view row = input.substr(0, input.find('\x1e'));
    input.remove_prefix(std::min(row.size() + 1, input.size()));
    const std::size_t half = std::min(row.find('\x1f'), row.size());
    rows.emplace_back(row.substr(0, half), row.substr(std::min(half + 1, row.size())));
  }
  const TableImage image(file.kind(), [&rows](const TakeRow& take) {
    for (const auto& [first, second] : rows) take(first, second);
  });
  const Rows saved = s_rows(image);
  require(s_sorted(saved) == s_sorted(rows), "an image keeps all rows");
  const SnapshotId id = file.save(image);
  require(file.load() == saved, "what was saved is loaded");
  require(file.confirm(id) && file.load() == saved, "a new time leaves the rows");

  const std::string whole = file.content();
  const std::size_t at = s_number<std::uint16_t>(how, 0) % whole.size();
  std::string damaged = whole;
  switch (static_cast<unsigned char>(how[2]) % 4U) {
    case 0:
      damaged.resize(at);
      break;
    case 1:
      damaged.insert(at, 1, how[3]);
      break;
    case 2:
      damaged.erase(at, 1U + static_cast<unsigned char>(how[3]) % 16U);
      break;
    default:
      damaged[at] = how[3];
      break;
  }
  file.setContent(damaged);
  const auto left = file.load();
  require(damaged == whole ? left == saved : !left, "a damaged file is refused", damaged);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const File& file = s_fileOf(data[0] % 2U == 0 ? TableKind::Alias : TableKind::Mask);
  const std::string_view rest = asText(data, size).substr(1);
  const std::string start = std::string(s_format) + file.name() + "\n";
  switch (data[0] / 2U % 4U) {
    case 0:
      s_checkSaved(file, rest);
      break;
    case 1:
      s_checkFile(file, std::string(rest), false);
      break;
    case 2:
      s_checkFile(file, std::string(rest), true);
      break;
    default:
      s_checkFile(file, start + std::string(rest), true);
      break;
  }
  return 0;
}
