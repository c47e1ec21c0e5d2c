// Bringing the content of a table file into its table.
#include "files/TableImport.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "base/Exception.h"
#include "base/bytes.h"
#include "base/sizes.h"
#include "database/QueryDescribeTable.h"
#include "failure/Failure.h"
#include "tables/AddressKey.h"
#include "tables/RuleTable.h"
#include "tables/SpellingSearch.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Of one statement: rows, and bytes unless a single row is longer.
constexpr std::size_t s_rowsPerStatement = 500;
constexpr std::size_t s_bytesPerStatement = 256_KiB;
// Bytes of a statement of one row without the literal of its value.
constexpr std::size_t s_frame = 1_KiB;

// What a column can hold.
struct Size {
  std::uint64_t most = UINT64_MAX;
  bool characters = false;  // Bytes otherwise.

  static Size of(const std::string& type) {
    if (type.starts_with("varchar(") || type.starts_with("char(")) {
      return {std::strtoull(type.c_str() + type.find('(') + 1, nullptr, 10), true};
    }
    if (type.starts_with("tinytext")) return {255, false};
    if (type.starts_with("text")) return {65535, false};
    if (type.starts_with("mediumtext")) return {16777215, false};
    return {};
  }

  [[nodiscard]] bool fits(std::string_view text) const {
    if (!characters || text.size() <= most) return text.size() <= most;
    const auto count =
        std::count_if(text.begin(), text.end(), [](char c) { return !isUtf8Continuation(c); });
    return static_cast<std::uint64_t>(count) <= most;
  }

  [[nodiscard]] std::string text() const {
    return std::to_string(most) + (characters ? " characters" : " bytes");
  }
};

EmailAddress s_parse(std::string_view text) {
  try {
    return EmailAddress::rfc5321Parse(text, false);
  } catch (const Exception&) {
    return {};  // A broken row is no row of any entry.
  }
}

std::string s_shown(std::string_view key, std::string_view value) {
  // Members can be many.
  const std::string_view start = value.substr(0, 200);
  return std::string("'").append(key).append(":").append(start) +
         (start.size() < value.size() ? "...'" : "'");
}

}  // namespace

TableImport::TableImport(const TableFormat& format, std::string table, const TableFile& file,
                         const Rest& rest)
    : m_format(format),
      m_table(std::move(table)),
      m_file(file),
      m_removes(rest.removes),
      m_domain(comparisonDomain(rest.domain)),
      m_shown(rest.shown),
      m_connection(std::string(s_database)) {}

void TableImport::checkSizes() {
  Size key;
  Size value;
  const Database::QueryDescribeTable description(m_connection, m_table);
  for (const Database::Field& field : description.fields()) {
    if (field.name == m_format.key) key = Size::of(field.type);
    if (field.name == m_format.value) value = Size::of(field.type);
  }
  const std::string packet =
      selectTexts(m_connection, "select @@max_allowed_packet;", 1).at(0).at(0);
  const std::size_t longest = std::strtoull(packet.c_str(), nullptr, 10);
  m_bytes = std::min(s_bytesPerStatement, longest);
  LineFaults faults(m_file.name());
  for (const FileEntry& entry : m_file.entries()) {
    const auto check = [&](const Size& size, const char* column, const std::string& text) {
      if (size.fits(text)) return;
      faults.add(entry.number, std::string("too long for the column ") + column + " of table " +
                                   m_table + ", which holds " + size.text());
    };
    check(key, m_format.key, entry.key.address());
    const std::string text = entry.value();
    check(value, m_format.value, text);
    // A literal can be twice as long as its text; what is far from the limit is not looked at.
    if (2 * text.size() + 2 * s_frame > longest && valuesOf(entry).size() + s_frame > longest) {
      faults.add(entry.number, "too long for one statement: the server's max_allowed_packet is " +
                                   packet + " bytes");
    }
  }
  faults.refuse("it has lines that do not fit the table");
}

void TableImport::compare(bool toWrite, Progress& progress) {
  progress.begin("comparing", "rows");
  checkSizes();
  if (toWrite) m_change.emplace(m_connection);
  if (m_shown != nullptr) m_shown->begin();
  std::vector<Match> matches(m_file.entries().size());
  LineFaults faults(m_file.name());
  std::string statement = "select ";
  statement.append(m_format.key).append(", ").append(m_format.value);
  statement.append(" from ").append(m_table).append(toWrite ? " for update;" : ";");
  selectPairs(
      m_connection, statement,
      [&](std::string_view key, std::string_view value) { meet(key, value, matches, faults); },
      progress.counter());
  if (m_shown != nullptr) m_shown->refuseChanged(m_table);
  faults.refuse(m_shown != nullptr ? "it has addresses of rows that are not edited"
                                   : "it would give a public address to two private ones");
  sortOut(matches);
  if (!m_aliases || m_added.size() + m_changed.size() + m_removed.size() == 0) return;
  progress.begin("looking for alias loops", "rows");
  if (m_loops == Loops::Refuse) checkLoops();
  checkMarkers();
  m_aliases.reset();
}

void TableImport::refuseHarm(Loops loops, bool warns) {
  m_loops = loops;
  m_warns = warns;
  m_aliases.emplace();
  for (const FileEntry& entry : m_file.entries()) m_aliases->write(entry);
}

void TableImport::checkLoops() {
  LineFaults faults(m_file.name());
  for (const AliasLoop& loop : m_aliases->loops()) {
    const std::size_t line = m_file.entries()[loop.row].number;
    if (loop.isNew) {
      faults.add(line, "it would lead back to itself: " + textOf(loop.path));
    } else {
      warn(line, "it is in an alias loop already: " + textOf(loop.path));
    }
  }
  faults.refuse("it would make aliases lead back to themselves, which only --allow-cycle permits");
}

void TableImport::checkMarkers() {
  LineFaults faults(m_file.name());
  for (const LostMarker& lost : m_aliases->lostMarkers()) {
    // It may come from a row that goes.
    if (!lost.row) throw Failure(ExitCode::BadData, m_file.name(), lost.why(), s_sideBySide);
    const std::size_t line = m_file.entries()[*lost.row].number;
    if (lost.isNew) {
      faults.add(line, lost.why());
    } else {
      warn(line, lost.why());
    }
  }
  faults.refuse(
      std::string("it would have all-users aliases reached with others; ").append(s_sideBySide));
}

void TableImport::warn(std::size_t line, const std::string& why) const {
  if (m_warns) say("warning: " + m_file.name() + ":" + std::to_string(line) + ": " + why);
}

std::size_t TableImport::placeOf(const FileEntry& entry) const {
  return static_cast<std::size_t>(&entry - m_file.entries().data());
}

void TableImport::meet(std::string_view key, std::string_view value, std::vector<Match>& matches,
                       LineFaults& faults) {
  const EmailAddress address = s_parse(key);
  const FileEntry* const entry = address.isNull() ? nullptr : m_file.withKey(address);
  const bool isShown = m_shown != nullptr && m_shown->meet(key, value);
  if (entry == nullptr) return meetUnmentioned(key, value, faults);
  if (m_shown != nullptr && !isShown) return meetHidden(*entry, key, value, faults);
  // What another program has written may be written otherwise than it is shown.
  const bool isUntouched = isShown && m_shown->isUnchanged(std::string(key), *entry);
  const bool isSame = isUntouched || value == entry->value();
  const std::size_t place = placeOf(*entry);
  Match& match = matches[place];
  const bool exact = isUntouched || key == entry->key.address();
  if (match.present && !exact) {
    // A second row of one address: the one that is spelled as in the file stays.
    m_removed.push_back({std::string(key), std::string(value)});
    return;
  }
  if (match.present) m_removed.push_back(std::move(match.before));
  match.present = true;
  match.equal = exact && isSame;
  if (m_aliases && match.equal) m_aliases->leave(place);
  if (m_aliases && !match.equal) m_aliases->setBefore(place, value);
  match.before = {};
  if (!exact) match.before.key = key;
  if (!match.equal) match.before.value = value;
}

// A row that was not shown, and has the address of `entry`.
void TableImport::meetHidden(const FileEntry& entry, std::string_view key, std::string_view value,
                             LineFaults& faults) {
  ++m_left;
  // The line is that of another spelling.
  if (m_shown->has(entry.key.address())) return;
  faults.add(entry.number, "the table has " + s_shown(key, value) + ", which was not shown");
}

void TableImport::meetUnmentioned(std::string_view key, std::string_view value,
                                  LineFaults& faults) {
  const bool isDoomed =
      m_shown != nullptr ? m_shown->has(std::string(key)) : m_removes && isOfDomain(key, m_domain);
  if (isDoomed) {
    m_removed.push_back({std::string(key), std::string(value)});
    if (m_aliases) m_aliases->remove(key, value);
    return;
  }
  ++m_left;
  if (m_aliases) m_aliases->keep(key, value);
  if (!m_format.hasPublic) return;
  const EmailAddress address = s_parse(value);
  const FileEntry* const taken = address.isNull() ? nullptr : m_file.withPublic(address);
  if (taken == nullptr) return;
  faults.add(taken->number, s_shown(taken->key.address(), taken->value()) +
                                " has the public address of the row " + s_shown(key, value) +
                                " of table " + m_table + ", which the file does not mention");
}

void TableImport::sortOut(std::vector<Match>& matches) {
  for (std::size_t i = 0; i < matches.size(); ++i) {
    const FileEntry& entry = m_file.entries()[i];
    if (!matches[i].present) {
      m_added.push_back(&entry);
    } else if (matches[i].equal) {
      ++m_left;
    } else {
      m_changed.push_back({&entry, std::move(matches[i].before)});
    }
  }
}

bool TableImport::isLike(const TableImport& other) const {
  return m_added == other.m_added && m_changed == other.m_changed && m_removed == other.m_removed;
}

void TableImport::write(Progress& progress) {
  m_progress = &progress;
  progress.begin("writing", "rows", m_added.size() + m_changed.size() + m_removed.size());
  std::vector<std::string> doomed;
  std::vector<std::string> gone;
  for (const StoredRow& row : m_removed) {
    // A second spelling of an address that stays keeps its rule.
    const EmailAddress address = s_parse(row.key);
    if (address.isNull() || m_file.withKey(address) == nullptr) gone.push_back(row.key);
    doomed.push_back(row.key);
  }
  Entries changed;
  for (const ChangedRow& row : m_changed) {
    const bool respelled = !row.before.key.empty();
    if (m_format.hasPublic) {
      // Public addresses may be swapped: all are removed before the first one is written.
      doomed.push_back(row.formerKey());
    }
    if (m_format.hasPublic || !respelled) changed.push_back(row.entry);
  }
  deleteAll(doomed);
  if (m_format.hasPublic) {
    insertAll(changed, "");
  } else {
    // The rows are there and locked; other columns keep what they hold.
    for (const ChangedRow& row : m_changed) {
      if (!row.before.key.empty()) respell(row);
    }
    insertAll(changed, " on duplicate key update members=values( members )");
  }
  insertAll(m_added, "");
  noteAll();
  if (m_format.hasPublic) return;
  m_removedRules = RuleTable(m_connection, m_table).removeAll(*m_change, gone);
}

void TableImport::note(const std::string& key, const std::optional<std::string>& before,
                       const std::optional<std::string>& after) {
  m_change->note({m_table, key, before, after});
}

void TableImport::noteAll() {
  for (const StoredRow& row : m_removed) note(row.key, row.value, std::nullopt);
  for (const ChangedRow& row : m_changed) {
    const std::string key = row.entry->key.address();
    if (row.before.key.empty()) {
      note(key, row.before.value, row.entry->value());
    } else {
      // To take it back is to write the other spelling again.
      note(row.before.key, row.before.value, std::nullopt);
      note(key, std::nullopt, row.entry->value());
    }
  }
  for (const FileEntry* entry : m_added) note(entry->key.address(), std::nullopt, entry->value());
}

void TableImport::commit() {
  m_change->commit();
}

void TableImport::deleteAll(const std::vector<std::string>& keys) {
  std::string list;
  std::size_t rows = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    list += (list.empty() ? "" : ",") + literal(keys[i]);
    ++rows;
    const bool full = rows == s_rowsPerStatement || i + 1 == keys.size() ||
                      list.size() + 2 * keys[i + 1].size() + s_frame > m_bytes;
    if (!full) continue;
    runStatement(m_connection, "delete from " + m_table + " where " + m_format.key + " in( " +
                                   std::exchange(list, "") + " );");
    m_progress->add(std::exchange(rows, 0));
  }
}

std::string TableImport::insertion() const {
  return "insert into " + m_table + " ( " + m_format.key + ", " + m_format.value + " ) values ";
}

std::string TableImport::valuesOf(const FileEntry& entry) const {
  return "( " + literal(entry.key.address()) + "," + literal(entry.value()) + " )";
}

void TableImport::insertAll(const Entries& entries, const std::string& end) {
  std::string statement = insertion();
  std::string next = entries.empty() ? "" : valuesOf(*entries.front());
  for (std::size_t first = 0, i = 0; i < entries.size(); ++i) {
    if (i != first) statement += ",";
    statement += next;
    const bool last = i + 1 == entries.size();
    if (!last) next = valuesOf(*entries[i + 1]);
    const bool full = last || i + 1 - first == s_rowsPerStatement ||
                      statement.size() + next.size() + s_frame > m_bytes;
    if (!full) continue;
    insertBatch(entries, first, i + 1, statement, end);
    statement = insertion();
    first = i + 1;
  }
}

void TableImport::insertBatch(const Entries& entries, std::size_t first, std::size_t last,
                              const std::string& statement, const std::string& end) {
  try {
    runStatement(m_connection, statement + end + ";");
  } catch (const Exception& exception) {
    if (!isDatabaseError(exception, s_duplicateEntry)) throw;
    // The statement did nothing. Sent one by one, they show which entry is refused.
    for (std::size_t i = first; i < last; ++i) {
      writeOne(*entries[i], [&] {
        runStatement(m_connection, insertion() + valuesOf(*entries[i]) + end + ";");
      });
    }
  }
  m_progress->add(last - first);
}

void TableImport::respell(const ChangedRow& row) {
  writeOne(*row.entry, [&] {
    runStatement(m_connection, "update " + m_table +
                                   " set name=" + literal(row.entry->key.address()) +
                                   ", members=" + literal(row.entry->value()) +
                                   " where name=" + literal(row.before.key) + ";");
  });
  m_progress->add(1);
}

template <class Write>
void TableImport::writeOne(const FileEntry& entry, Write write) {
  try {
    write();
  } catch (const Exception& exception) {
    if (!isDatabaseError(exception, s_duplicateEntry)) throw;
    std::string statement = "select ";
    statement.append(m_format.key).append(", ").append(m_format.value).append(" from ");
    statement.append(m_table).append(" where ").append(m_format.key).append("=");
    statement.append(literal(entry.key.address()));
    if (m_format.hasPublic) {
      statement.append(" or ").append(m_format.value).append("=").append(literal(entry.value()));
    }
    std::string rows;
    selectPairs(m_connection, statement + ";", [&](std::string_view key, std::string_view value) {
      rows += (rows.empty() ? "" : " and ") + s_shown(key, value);
    });
    throw Failure(ExitCode::BadData,
                  m_file.name() + ":" + std::to_string(entry.number) + ": " +
                      s_shown(entry.key.address(), entry.value()),
                  "the server takes it for " + (rows.empty() ? "another row" : rows) +
                      " of table " + m_table + ", which is spelled differently",
                  "nothing was written; use one spelling in the file and the table");
  }
}

}  // namespace Tessel::Tool
