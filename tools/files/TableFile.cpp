// Reading a table file.
#include "files/TableFile.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "base/stringCompareNoCase.h"
#include "failure/Failure.h"
#include "files/FileSyntax.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Why a good line must not be written; nothing when it may.
std::optional<std::string> s_refusal(const TableEntry& entry, bool hasMembers,
                                     LocalNames localNames) {
  auto why = refusalOf(entry.key);
  if (!why && hasMembers) why = refusalOfMarker(entry.values, entry.key);
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
  if (m_faults.size() / 2 < m_shown) m_faults.push_back({line, reason});
}

void LineFaults::report() {
  std::stable_sort(m_faults.begin(), m_faults.end(),
                   [](const Fault& a, const Fault& b) { return a.line < b.line; });
  const std::size_t shown = std::min(m_faults.size(), m_shown);
  for (std::size_t i = 0; i < shown; ++i) {
    say(m_file + ":" + std::to_string(m_faults[i].line) + ": " + m_faults[i].reason);
  }
  if (m_count > shown) say("and " + std::to_string(m_count - shown) + " more");
}

void LineFaults::refuse(const std::string& why) {
  if (m_faults.empty()) return;
  report();
  throw Failure(ExitCode::BadData, m_file, why,
                "nothing was written; correct the lines and try again");
}

TableFile::TableFile(const TableFormat& format, const std::string& path, const Options& options,
                     Progress& progress)
    : m_name(path == "-" ? "standard input" : path), m_skipBad(options.skipBad) {
  progress.beginReading(path);
  Lines lines(path, m_name);
  const std::string name =
      options.format.empty() && !options.columns.empty() ? "csv" : options.format;
  const auto syntax = name.empty() ? FileSyntax::detected(lines, m_name, format, options.domain)
                                   : FileSyntax::named(name, format, options.domain);
  if (!options.columns.empty()) syntax->setColumns(options.columns);
  LineFaults faults = m_skipBad ? LineFaults(m_name, SIZE_MAX) : LineFaults(m_name);
  read(lines, *syntax, faults, progress, options.localNames);
  findDoubles(format, faults);
  if (!m_skipBad) faults.refuse("it has bad lines");
  faults.report();
  m_skipped = faults.all();
  index(format);
}

void TableFile::read(Lines& lines, FileSyntax& syntax, LineFaults& faults, Progress& progress,
                     LocalNames localNames) {
  Records records(lines, syntax.isLogical());
  bool isHeader = !syntax.header().empty();
  std::string_view record;
  while (records.next(record)) {
    progress.set(lines.number());
    if (std::exchange(isHeader, false)) {
      if (const auto why = syntax.readHeader(record)) {
        throw Failure(ExitCode::BadData, m_name + ":" + std::to_string(records.number()), *why,
                      "nothing was written; --columns names the columns to read");
      }
      continue;
    }
    if (record.starts_with(s_byteOrderMark)) {
      faults.add(records.number(),
                 "it begins with a byte order mark, which only the start of a file may have");
      continue;
    }
    if (syntax.isFiller(record)) continue;
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
  Places keys;
  Places publics;
  std::set<std::size_t> doubles;
  for (const FileEntry& entry : m_entries) {
    const bool isBad =
        isDouble(keys, entry, entry.key, format.hasPublic ? "private address" : "alias", faults) ||
        (format.hasPublic &&
         isDouble(publics, entry, entry.values.front(), "public address", faults));
    if (isBad) doubles.insert(entry.number);
  }
  if (m_skipBad) {
    std::erase_if(m_entries, [&](const FileEntry& one) { return doubles.contains(one.number); });
  }
  std::stable_sort(m_entries.begin(), m_entries.end(),
                   [](const FileEntry& a, const FileEntry& b) { return a.key < b.key; });
}

// True when an entry before `entry` has `address`, which is called `what`, too; that is reported.
bool TableFile::isDouble(Places& places, const FileEntry& entry, const EmailAddress& address,
                         const char* what, LineFaults& faults) {
  const AddressIndex::Added added = places.add(address, entry.number);
  if (added.isNew) return false;
  const std::string_view first = places.addresses.text(added.id);
  const bool isAlike = stringCompareNoCase(first, address.address(), 0);
  faults.add(entry.number, std::string("the ") + what + " " + address.address() + " is in line " +
                               std::to_string(places.numbers[added.id]) + " already" +
                               (isAlike ? "" : ", spelled " + std::string(first)));
  return true;
}

void TableFile::index(const TableFormat& format) {
  for (std::size_t i = 0; i < m_entries.size(); ++i) {
    m_byKey.add(m_entries[i].key, i);
    if (format.hasPublic) m_byPublic.add(m_entries[i].values.front(), i);
  }
}

const FileEntry* TableFile::withKey(const EmailAddress& key) const {
  return with(m_byKey, key);
}

const FileEntry* TableFile::withPublic(const EmailAddress& address) const {
  return with(m_byPublic, address);
}

const FileEntry* TableFile::with(const Places& places, const EmailAddress& address) const {
  const SpellingIndex::Id id = places.addresses.find(address.address());
  return id != SpellingIndex::s_none ? &m_entries[places.numbers[id]] : nullptr;
}

}  // namespace Tessel::Tool
