// Fuzz target of table files as the tool imports and exports them, in all formats: a file is read
// or refused with a Failure, its format is detected again, and entries that are written in any
// format are read back. The first byte of an input holds the kind of table, the format and the
// options, the rest is the file.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "disk/Descriptor.h"
#include "failure/Failure.h"
#include "files/FileSyntax.h"
#include "files/Lines.h"
#include "files/TableFile.h"
#include "fuzz/Fuzz.h"
#include "fuzz/ScratchDirectory.h"

using Tessel::Fuzz::asText;
using Tessel::Fuzz::require;
using Tessel::Fuzz::ScratchDirectory;
using Tessel::Tool::Descriptor;
using Tessel::Tool::ExitCode;
using Tessel::Tool::Failure;
using Tessel::Tool::FileEntry;
using Tessel::Tool::FileSyntax;
using Tessel::Tool::Lines;
using Tessel::Tool::LocalNames;
using Tessel::Tool::Progress;
using Tessel::Tool::TableFile;
using Tessel::Tool::TableFormat;

namespace {

// Empty to have the format detected.
constexpr std::array<const char*, 6> s_formats = {"",    "native",  "jsonl",
                                                  "csv", "virtual", "aliases"};
constexpr const char* s_domain = "names.example";

// Nothing is written to standard error while in scope: bad lines are reported there.
class Quiet {
 public:
  Quiet() : m_before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
    const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null.get(), STDERR_FILENO);
  }
  ~Quiet() { dup2(m_before.get(), STDERR_FILENO); }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  const Descriptor m_before;
};

// The one file, with the content that it was last given.
class File {
 public:
  explicit File(std::string_view content) {
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << content;
  }

  static const std::string& path() {
    static const ScratchDirectory s_directory;
    static const std::string s_path = s_directory.path() + "/file";
    return s_path;
  }

  // What `read` makes of it; nothing, with the exit code in `refusal`, when it is refused.
  template <class Read>
  auto outcome(ExitCode& refusal, const Read& read) const -> decltype(read()) {
    try {
      const Quiet quiet;
      return read();
    } catch (const Failure& failure) {
      refusal = failure.code();
      require(refusal == ExitCode::BadData || refusal == ExitCode::Usage, "a fault of the file");
      require(!failure.why().empty(), "a refusal says why");
      return {};
    }
  }

  // Its entries, when it is good.
  [[nodiscard]] std::unique_ptr<TableFile> read(const TableFormat& table,
                                                const TableFile::Options& options,
                                                ExitCode& refusal) const {
    static Progress s_progress(
        Progress::Timing{std::chrono::hours(10000), std::chrono::hours(10000)});
    return outcome(refusal,
                   [&] { return std::make_unique<TableFile>(table, path(), options, s_progress); });
  }

  // The name of the format that it looks like.
  [[nodiscard]] std::string detected(const TableFormat& table, const std::string& domain,
                                     ExitCode& refusal) const {
    return outcome(refusal, [&]() -> std::string {
      Lines lines(path(), path());
      return FileSyntax::detected(lines, path(), table, domain)->name();
    });
  }
};

std::vector<std::string> s_rows(const std::vector<FileEntry>& entries) {
  std::vector<std::string> rows;
  rows.reserve(entries.size());
  for (const FileEntry& entry : entries) rows.push_back(entry.line());
  return rows;
}

// Entries have an order, and each is found by its addresses.
void s_checkEntries(const TableFormat& table, const TableFile& file) {
  const FileEntry* before = nullptr;
  for (const FileEntry& entry : file.entries()) {
    require(!entry.key.isNull() && !entry.values.empty(), "no column is empty", entry.line());
    require(before == nullptr || before->key < entry.key, "keys ascend", entry.line());
    require(file.withKey(entry.key) == &entry, "found by its key", entry.line());
    require(!table.hasPublic || entry.values.size() == 1, "one public address", entry.line());
    require(!table.hasPublic || file.withPublic(entry.values.front()) == &entry,
            "found by its public address", entry.line());
    before = &entry;
  }
}

// Writes the entries in the format of `options`, as an export does, and reads them again. With
// `isOwn` they were read from this format, which can express them all.
void s_checkWritten(const TableFormat& table, const std::vector<FileEntry>& entries,
                    const TableFile::Options& options, bool isOwn) {
  const auto syntax = FileSyntax::named(options.format, table, options.defaultDomain);
  std::string content = syntax->header();
  if (!content.empty()) content += '\n';
  std::vector<FileEntry> written;
  for (const FileEntry& entry : entries) {
    std::string line;
    const auto fault = syntax->write(entry, line);
    require(!fault || !isOwn || options.format == "aliases", "its own format expresses an entry",
            entry.line());
    if (fault) continue;
    require(line.find('\n') == std::string::npos, "an entry is one line", line);
    // An export refuses these.
    if (line.starts_with(Tessel::Tool::s_byteOrderMark)) continue;
    content += line + '\n';
    written.push_back(entry);
  }
  const File file(content);
  ExitCode refusal{};
  const auto again = file.read(table, options, refusal);
  require(again != nullptr, "what was written can be read", content);
  require(s_rows(again->entries()) == s_rows(written), "what was written is read back", content);
  if (options.format != "csv") return;
  require(file.detected(table, "", refusal) == options.format, "the header is known", content);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const TableFormat& table = data[0] % 2U == 0 ? TableFormat::alias() : TableFormat::mask();
  TableFile::Options options;
  options.format = s_formats.at(data[0] / 2U % 6U);
  if (data[0] / 12U % 2U != 0) options.defaultDomain = s_domain;
  if (data[0] / 24U % 2U != 0) options.localNames = LocalNames::Allow;

  const File file(asText(data, size).substr(1));
  ExitCode refusal{};
  const auto first = file.read(table, options, refusal);
  if (options.format.empty()) {
    ExitCode detection{};
    options.format = file.detected(table, options.defaultDomain, detection);
    require(!options.format.empty() || (first == nullptr && refusal == detection),
            "without a format nothing is read");
    if (options.format.empty()) return 0;
    const auto again = file.read(table, options, refusal);
    require((again != nullptr) == (first != nullptr), "the same with the format that was detected");
    require(first == nullptr || s_rows(again->entries()) == s_rows(first->entries()),
            "the same entries with the format that was detected");
  }
  if (first == nullptr) return 0;
  s_checkEntries(table, *first);
  for (const char* const format : s_formats) {
    const bool isAliases = std::string_view(format) == "aliases";
    if (*format == '\0' || (isAliases && table.hasPublic)) continue;
    s_checkWritten(table, first->entries(), {format, isAliases ? s_domain : "", options.localNames},
                   options.format == format);
  }
  return 0;
}
