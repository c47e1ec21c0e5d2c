// The record of each change.
#include "tables/History.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "base/Logger.h"
#include "base/bytes.h"
#include "base/sizes.h"
#include "failure/Failure.h"
#include "tables/OwnTables.h"
#include "tables/TableFormat.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

constexpr unsigned int s_logChange = 0x3000100;
// Of one statement, unless a single row is longer.
constexpr std::size_t s_recordBytes = 256_KiB;
// Bytes of a statement without its values.
constexpr std::size_t s_frame = 1_KiB;
// With more in one table, rows are packed.
constexpr std::size_t s_mostSingleRows = 20;
// Rows of a change that its log line shows, and bytes of each.
constexpr std::size_t s_loggedRows = 3;
constexpr std::size_t s_loggedBytes = 200;
// Bytes of the columns of a record.
constexpr std::size_t s_longestName = 255;
constexpr std::size_t s_longestCommand = 4000;

struct Author {
  std::string user;
  std::string sudoUser;
  std::string host;
  std::string command;
};

Author& s_author() {
  static Author s_value;
  return s_value;
}

// What comes from outside may hold any bytes, and the server takes UTF-8 only.
std::string s_cut(const std::string& text, std::size_t most) {
  return std::string(cutUtf8(printable(text), most));
}

std::string s_userName() {
  const uid_t id = getuid();
  const passwd* const entry = getpwuid(id);  // NOLINT(concurrency-mt-unsafe): one thread yet
  return entry == nullptr ? std::to_string(id) : entry->pw_name;
}

std::string s_hostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// `word` as a shell takes it.
std::string s_quoted(const std::string& word) {
  const bool isPlain =
      !word.empty() && word.find_first_of(" \t\n'\"\\$&|;<>()*?[]#~`!{}") == std::string::npos;
  if (isPlain) return word;
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? "'\\''" : std::string(1, c);
  return quoted + "'";
}

std::string s_literal(const std::optional<std::string>& text) {
  return text ? literal(*text) : "null";
}

std::size_t s_bytesOf(const RowChange& row) {
  constexpr std::size_t s_others = 64;
  return row.name.size() + (row.before ? row.before->size() : 0) +
         (row.after ? row.after->size() : 0) + s_others;
}

std::string s_line(const std::string& key, const std::string& text) {
  return key.empty() ? text : key + ":" + text;
}

Failure s_brokenPack() {
  return {ExitCode::BadData, std::string("table ") + s_historyRows,
          "it has a row with row_count above 1 that cannot be read",
          "another program must have changed it"};
}

// Takes a length and the `end` behind it from `text`; nothing for "-".
std::optional<std::size_t> s_size(std::string_view& text, char end) {
  std::size_t size = 0;
  const char* const last = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), last, size);
  const bool isNull = text.starts_with('-');
  const std::size_t length = isNull ? 1 : static_cast<std::size_t>(rest - text.data());
  if ((!isNull && error != std::errc()) || length >= text.size() || text[length] != end) {
    throw s_brokenPack();
  }
  text.remove_prefix(length + 1);
  return isNull ? std::nullopt : std::optional(size);
}

// Takes that many bytes.
std::optional<std::string> s_part(std::string_view& text, std::optional<std::size_t> size) {
  if (!size) return std::nullopt;
  if (*size > text.size()) throw s_brokenPack();
  std::string part(text.substr(0, *size));
  text.remove_prefix(*size);
  return part;
}

}  // namespace

void setChangeAuthor(int argc, const char* const* argv) {
  Author& author = s_author();
  author.user = s_cut(s_userName(), s_longestName);
  const char* const sudoUser = std::getenv("SUDO_USER");  // NOLINT(concurrency-mt-unsafe): as above
  author.sudoUser = sudoUser == nullptr ? "" : s_cut(sudoUser, s_longestName);
  author.host = s_cut(s_hostName(), s_longestName);
  std::string command = "tsl-address-map";
  for (int i = 1; i < argc; ++i) command += " " + s_quoted(argv[i]);
  author.command = s_cut(command, s_longestCommand);
}

std::string userText(const std::string& user, const std::string& sudoUser) {
  return sudoUser.empty() ? user : sudoUser + " as " + user;
}

RowChange creationOf(const std::string& table) {
  return {table, "", std::nullopt, "create table " + table};
}

RowChange dropOf(const std::string& table, std::uint64_t rows) {
  return {table, "", "table " + table + " with " + std::to_string(rows) + " rows", std::nullopt};
}

std::string textOf(const RowChange& change) {
  if (!change.before) return "+ " + s_line(change.name, change.after.value_or(""));
  if (!change.after) return "- " + s_line(change.name, *change.before);
  const auto table = readTableName(change.table);
  RowReader reader(TableKind::Alias);
  TableEntry now;
  if (table && table->kind == TableKind::Alias &&
      !readEntry(reader, change.name, *change.after, now)) {
    const std::string text = changeOf(change.name, *change.before, now);
    if (!text.empty()) return "~ " + text;
  }
  return "~ " + s_line(change.name, *change.before) + " -> " + *change.after;
}

std::string packed(const std::vector<RowChange>& changes, std::size_t first, std::size_t end) {
  std::string text;
  const auto size = [](const std::optional<std::string>& part) {
    return part ? std::to_string(part->size()) : "-";
  };
  for (std::size_t i = first; i < end; ++i) {
    const RowChange& row = changes[i];
    text += std::to_string(row.name.size()) + " " + size(row.before) + " " + size(row.after) +
            "\n" + row.name + row.before.value_or("") + row.after.value_or("") + "\n";
  }
  return text;
}

void unpack(const std::string& table, std::string_view text,
            const std::function<void(RowChange)>& take) {
  while (!text.empty()) {
    const auto name = s_size(text, ' ');
    const auto before = s_size(text, ' ');
    const auto after = s_size(text, '\n');
    if (!name) throw s_brokenPack();
    RowChange row{table, *s_part(text, name), s_part(text, before), s_part(text, after)};
    if (!text.starts_with('\n')) throw s_brokenPack();
    text.remove_prefix(1);
    take(std::move(row));
  }
}

void ChangeSummary::add(const RowChange& change) {
  if (++m_rows > s_loggedRows) return;
  const std::string text = printable(textOf(change));
  const std::string_view start = cutUtf8(text, s_loggedBytes);
  m_text.append(m_text.empty() ? "" : "; ").append(change.table).append(" ").append(start);
  if (start.size() < text.size()) m_text += "...";
}

std::string ChangeSummary::text() const {
  if (m_rows <= s_loggedRows) return m_text;
  return m_text + "; and " + std::to_string(m_rows - s_loggedRows) + " more rows";
}

void logChange(std::uint64_t number, const std::string& outcome, const ChangeSummary& summary) {
  const Author& author = s_author();
  const std::string name =
      number == 0 ? "change without a record" : "change " + std::to_string(number);
  Logger::instance(false)(s_logChange, 0, "%s by %s on %s, %s: %s", name.c_str(),
                          userText(author.user, author.sudoUser).c_str(), author.host.c_str(),
                          outcome.c_str(), summary.text().c_str());
}

RecordedChange::RecordedChange(Database::Connection& connection, std::string_view outcome)
    : m_connection(connection), m_outcome(outcome), m_transaction(connection) {}

void RecordedChange::note(RowChange change) {
  if (m_isAbsent || change.before == change.after) return;
  m_summary.add(change);
  m_bytes += s_bytesOf(change);
  m_rows.push_back(std::move(change));
  if (m_bytes > s_recordBytes) writeRows();
}

void RecordedChange::commit() {
  writeRows();
  try {
    m_transaction.commit();
  } catch (const Exception& exception) {
    if (m_number != 0 && isOutcomeUnknown(exception)) logChange(m_number, "unknown", m_summary);
    throw;
  }
  if (m_number != 0 && m_outcome != s_begun) logChange(m_number, std::string(m_outcome), m_summary);
}

void RecordedChange::writeRows() {
  if (m_rows.empty() || m_isAbsent) return;
  try {
    send();
  } catch (const Exception& exception) {
    // Without a history, nobody expects a record.
    m_isAbsent = m_number == 0 && isDatabaseError(exception, s_noSuchTable);
    if (!m_isAbsent && !isDatabaseError(exception, s_commandDenied)) throw;
    if (!m_isAbsent) {
      const Failure failure = failureOf(exception, "recording the change in the history");
      throw Failure(failure.code(), failure.subject(), failure.why(),
                    "nothing was changed; " + failure.hint());
    }
  }
  m_rows.clear();
  m_bytes = 0;
}

// Writes the rows that are waiting, in statements that the server takes.
void RecordedChange::send() {
  if (m_number == 0) writeHead();
  const std::size_t most = std::min(s_recordBytes, (m_packet - s_frame) / 2);
  for (std::size_t first = 0; first < m_rows.size();) {
    std::size_t bytes = 0;
    std::size_t end = first;
    while (end < m_rows.size() && m_rows[end].table == m_rows[first].table) {
      bytes += s_bytesOf(m_rows[end]);
      if (bytes > most && end > first) break;
      ++end;
    }
    send(first, end);
    first = end;
  }
}

// Writes rows of one table.
void RecordedChange::send(std::size_t first, std::size_t end) {
  std::string values;
  if (end - first > s_mostSingleRows) {
    const RowChange pack{m_rows[first].table, "", std::nullopt, packed(m_rows, first, end)};
    values = valuesOf(pack, end - first);
  } else {
    for (std::size_t i = first; i < end; ++i) {
      values += (values.empty() ? "" : ",") + valuesOf(m_rows[i], 1);
    }
  }
  const bool isTooLong = values.size() + s_frame > m_packet;
  if (isTooLong && m_rows[first].before && m_rows[first].after) {
    // One row, whose texts are together longer than the server takes: it goes and comes.
    const RowChange& row = m_rows[first];
    insert(valuesOf({row.table, row.name, row.before, std::nullopt}, 1));
    values = valuesOf({row.table, row.name, std::nullopt, row.after}, 1);
  }
  insert(values);
}

std::string RecordedChange::valuesOf(const RowChange& row, std::size_t count) {
  const std::uint64_t place = m_written + 1;
  m_written += count;
  return "(" + std::to_string(m_number) + "," + std::to_string(place) + "," + literal(row.table) +
         "," + literal(row.name) + "," + s_literal(row.before) + "," + s_literal(row.after) + "," +
         std::to_string(count) + ")";
}

void RecordedChange::insert(const std::string& values) {
  runStatement(m_connection,
               std::string("insert into ") + s_historyRows +
                   " ( number, place, table_name, name, old_text, new_text, row_count ) values " +
                   values + ";");
}

void RecordedChange::writeHead() {
  const Author& author = s_author();
  runStatement(m_connection, std::string("insert into ") + s_history +
                                 " ( at, os_user, sudo_user, sql_user, host, command, outcome )"
                                 " values( utc_timestamp( 6 ), " +
                                 literal(author.user) + "," + literal(author.sudoUser) +
                                 ",current_user()," + literal(author.host) + "," +
                                 literal(author.command) + "," + literal(m_outcome) + " );");
  const TextRow row =
      selectTexts(m_connection, "select last_insert_id(), @@max_allowed_packet;", 2).at(0);
  m_number = std::strtoull(row[0].c_str(), nullptr, 10);
  m_packet = std::strtoull(row[1].c_str(), nullptr, 10);
}

void setOutcome(Database::Connection& connection, std::uint64_t number, std::string_view outcome) {
  runStatement(connection, std::string("update ") + s_history + " set outcome=" + literal(outcome) +
                               " where number=" + std::to_string(number) + ";");
}

}  // namespace Tessel::Tool
