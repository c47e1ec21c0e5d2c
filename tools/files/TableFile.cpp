// Reading a table file.
#include "files/TableFile.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "failure/Failure.h"
#include "files/FileSyntax.h"
#include "tables/AddressKey.h"
#include "tables/SpellingSearch.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// The place of an address whose entry was left out.
constexpr std::size_t s_nowhere = SIZE_MAX;

// Why a good line must not be written; nothing when it may.
std::optional<std::string> s_refusal(const TableEntry& entry, bool hasMembers,
                                     const TableFile::Options& options) {
  const bool isUnchanged =
      options.shown != nullptr && options.shown->isUnchanged(entry.key.address(), entry);
  if (isUnchanged) return std::nullopt;
  auto why = refusalOf(entry.key);
  if (!why && hasMembers) why = refusalOfMarker(entry.values, entry.key);
  for (const EmailAddress& value : entry.values) {
    if (why) break;
    why = hasMembers ? refusalOfMember(value, entry.key, options.localNames) : refusalOf(value);
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

void LineFaults::refuse(const std::string& why, const char* hint) {
  if (m_faults.empty()) return;
  report();
  throw Failure(ExitCode::BadData, m_file, why, hint);
}

TableFile::TableFile(const TableFormat& format, const std::string& path, const Options& options,
                     Progress& progress)
    : m_name(path == "-" ? "standard input" : path), m_newSpelling(options.newSpelling) {
  progress.beginReading(path);
  Lines lines(path, m_name);
  const std::string name =
      options.format.empty() && !options.columns.empty() ? "csv" : options.format;
  auto syntax = name.empty() ? FileSyntax::detected(lines, m_name, format, options.defaultDomain)
                             : FileSyntax::named(name, format, options.defaultDomain);
  if (syntax->format() == FileFormat::Aliases && options.defaultDomain.empty()) {
    syntax = makeAliasesSyntax(format, options.domain);
  }
  if (!options.columns.empty()) syntax->setColumns(options.columns);
  LineFaults faults = options.skipBad ? LineFaults(m_name, SIZE_MAX) : LineFaults(m_name);
  read(lines, *syntax, faults, progress, options);
  leaveDoublesOut(format, faults);
  if (!options.skipBad) faults.refuse("it has bad lines");
  faults.report();
  m_skipped = faults.all();
  sort();
}

void TableFile::read(Lines& lines, FileSyntax& syntax, LineFaults& faults, Progress& progress,
                     const Options& options) {
  const std::string domain = comparisonDomain(options.domain);
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
    } else if (const auto why = s_refusal(entry, syntax.hasMembers(), options)) {
      faults.add(records.number(), *why);
    } else if (!isOfDomain(entry.key.address(), domain)) {
      faults.add(records.number(), entry.key.address() + " is not of the domain " + options.domain +
                                       ", to which --domain limits the import");
    } else {
      m_entries.push_back(std::move(entry));
    }
  }
}

// Of several lines for one address, the first one is good.
void TableFile::leaveDoublesOut(const TableFormat& format, LineFaults& faults) {
  const char* const key = format.hasPublic ? "private address" : "alias";
  std::vector<FileEntry> all = std::exchange(m_entries, {});
  m_entries.reserve(all.size());
  for (FileEntry& entry : all) {
    std::size_t* const byKey = placeOf(m_byKey, entry, entry.key, key, faults);
    std::size_t* const byPublic =
        format.hasPublic
            ? placeOf(m_byPublic, entry, entry.values.front(), "public address", faults)
            : byKey;
    if (byKey == nullptr || byPublic == nullptr) continue;
    *byKey = *byPublic = m_entries.size();
    m_entries.push_back(std::move(entry));
  }
}

// Where the place of `entry` is to be noted by its `address`, which is called `what`. Reports it,
// and returns null, when an entry before it has the address.
std::size_t* TableFile::placeOf(Places& places, const FileEntry& entry, const EmailAddress& address,
                                const char* what, LineFaults& faults) const {
  const AddressIndex::Added added = places.addresses.add(textOf(address));
  if (added.isNew) places.entries.push_back(s_nowhere);
  std::size_t& place = places.entries[added.id];
  if (place == s_nowhere) return &place;
  const FileEntry& first = m_entries[place];
  const EmailAddress& other = &places == &m_byKey ? first.key : first.values.front();
  const bool isAlike = stringCompareNoCase(other.address(), address.address(), 0);
  faults.add(entry.number, std::string("the ") + what + " " + address.address() + " is in line " +
                               std::to_string(first.number) + " already" +
                               (isAlike ? ""
                                        : ", spelled " + other.address() +
                                              "; --new-spelling makes two rows of them"));
  return nullptr;
}

void TableFile::sort() {
  std::vector<std::size_t> order(m_entries.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(),
            [this](std::size_t a, std::size_t b) { return m_entries[a].key < m_entries[b].key; });
  std::vector<FileEntry> sorted;
  sorted.reserve(order.size());
  std::vector<std::size_t> moved(order.size());
  for (const std::size_t place : order) {
    moved[place] = sorted.size();
    sorted.push_back(std::move(m_entries[place]));
  }
  m_entries = std::move(sorted);
  for (Places* const places : {&m_byKey, &m_byPublic}) {
    for (std::size_t& place : places->entries) {
      if (place != s_nowhere) place = moved[place];
    }
  }
}

std::string TableFile::textOf(const EmailAddress& address) const {
  std::string text = address.address();
  return m_newSpelling ? text : comparisonKey(text);
}

const FileEntry* TableFile::withKey(const EmailAddress& key) const {
  return with(m_byKey, key);
}

const FileEntry* TableFile::withPublic(const EmailAddress& address) const {
  return with(m_byPublic, address);
}

const FileEntry* TableFile::with(const Places& places, const EmailAddress& address) const {
  const AddressIndex::Id id = places.addresses.find(textOf(address));
  const std::size_t place = id != AddressIndex::s_none ? places.entries[id] : s_nowhere;
  return place != s_nowhere ? &m_entries[place] : nullptr;
}

}  // namespace Tessel::Tool
