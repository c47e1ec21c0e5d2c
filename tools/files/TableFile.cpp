// Reading a table file.
#include "files/TableFile.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "base/stringCompareNoCase.h"
#include "failure/Failure.h"
#include "files/FileSyntax.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_faultsShown = 100;

// Why a good line must not be written; nothing when it may.
std::optional<std::string> s_refusal(const TableEntry& entry, bool hasMembers,
                                     LocalNames localNames) {
  auto why = refusalOf(entry.key);
  for (const EmailAddress& value : entry.values) {
    if (why) break;
    why = hasMembers ? refusalOfMember(value, entry.key, localNames) : refusalOf(value);
  }
  return why;
}

}  // namespace

void LineFaults::add(std::size_t line, const std::string& reason) {
  ++m_count;
  // What is kept of the later ones is a number: the file may be of another kind altogether.
  if (m_faults.size() < 2 * s_faultsShown) m_faults.push_back({line, reason});
}

void LineFaults::refuse(const std::string& why) {
  if (m_faults.empty()) return;
  std::stable_sort(m_faults.begin(), m_faults.end(),
                   [](const Fault& a, const Fault& b) { return a.line < b.line; });
  const std::size_t shown = std::min(m_faults.size(), s_faultsShown);
  for (std::size_t i = 0; i < shown; ++i) {
    say(m_file + ":" + std::to_string(m_faults[i].line) + ": " + m_faults[i].reason);
  }
  if (m_count > shown) say("and " + std::to_string(m_count - shown) + " more");
  throw Failure(ExitCode::BadData, m_file, why,
                "nothing was written; correct the lines and try again");
}

TableFile::TableFile(const TableFormat& format, const std::string& path, const Options& options,
                     Progress& progress)
    : m_name(path == "-" ? "standard input" : path) {
  progress.beginReading(path);
  Lines lines(path, m_name);
  const auto syntax = options.format.empty()
                          ? FileSyntax::detected(lines, m_name, format, options.domain)
                          : FileSyntax::named(options.format, format, options.domain);
  LineFaults faults(m_name);
  read(lines, *syntax, faults, progress, options.localNames);
  findDoubles(format, faults);
  faults.refuse("it has bad lines");
}

void TableFile::read(Lines& lines, FileSyntax& syntax, LineFaults& faults, Progress& progress,
                     LocalNames localNames) {
  Records records(lines, syntax.isLogical());
  std::string header = syntax.header();
  if (!header.empty()) header.pop_back();  // The CR, which `Lines` takes off too.
  std::string_view record;
  while (records.next(record)) {
    progress.set(lines.number());
    if (!header.empty()) {
      if (record != header) faults.add(records.number(), "it is not the header '" + header + "'");
      header.clear();
      continue;
    }
    if (record.starts_with(s_byteOrderMark)) {
      faults.add(records.number(),
                 "it begins with a byte order mark, which only the start of a file may have");
      continue;
    }
    FileEntry entry;
    entry.number = records.number();
    if (const auto fault = syntax.read(record, entry)) {
      faults.add(records.number(), fault->why);
    } else if (const auto why = s_refusal(entry, syntax.hasMembers(), localNames)) {
      faults.add(records.number(), *why);
    } else {
      m_entries.push_back(std::move(entry));
    }
  }
}

void TableFile::findDoubles(const TableFormat& format, LineFaults& faults) {
  std::stable_sort(m_entries.begin(), m_entries.end(),
                   [](const FileEntry& a, const FileEntry& b) { return a.key < b.key; });
  const char* const key = format.hasPublic ? "private address" : "alias";
  for (std::size_t i = 0; i < m_entries.size(); ++i) {
    const FileEntry& entry = m_entries[i];
    note(m_byKey, i, entry.key, key, faults);
    if (format.hasPublic) note(m_byPublic, i, entry.values.front(), "public address", faults);
  }
}

// Reports `address` of the entry at `entry`, which is called `what`, when another one has it.
void TableFile::note(Places& places, std::size_t entry, const EmailAddress& address,
                     const char* what, LineFaults& faults) const {
  const AddressIndex::Added added = places.addresses.add(address.address());
  if (added.isNew) return places.entries.push_back(entry);
  const std::size_t line = m_entries[entry].number;
  const std::size_t other = m_entries[places.entries[added.id]].number;
  const std::string_view first = places.addresses.text(added.id);
  const bool isAlike = stringCompareNoCase(first, address.address(), 0);
  faults.add(std::max(line, other), std::string("the ") + what + " " + address.address() +
                                        " is in line " + std::to_string(std::min(line, other)) +
                                        " already" +
                                        (isAlike ? "" : ", spelled " + std::string(first)));
}

const FileEntry* TableFile::withKey(const EmailAddress& key) const {
  return with(m_byKey, key);
}

const FileEntry* TableFile::withPublic(const EmailAddress& address) const {
  return with(m_byPublic, address);
}

const FileEntry* TableFile::with(const Places& places, const EmailAddress& address) const {
  const SpellingIndex::Id id = places.addresses.find(address.address());
  return id != SpellingIndex::s_none ? &m_entries[places.entries[id]] : nullptr;
}

}  // namespace Tessel::Tool
