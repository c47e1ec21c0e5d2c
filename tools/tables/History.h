// Who changed what: the record of each change of this tool, see OwnTables.h. It is written in the
// transaction of the change, so that neither is there without the other. A database without these
// tables keeps none.
#ifndef TSL_TOOLS_TABLES_HISTORY_H
#define TSL_TOOLS_TABLES_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "database/Transaction.h"

namespace Tessel::Tool {

// How a change ended, as the table has it.
inline constexpr char s_done[] = "done";
// What no transaction covers: begun and not ended means interrupted, or still running.
inline constexpr char s_begun[] = "begun";
inline constexpr char s_failed[] = "failed";

// What people call the configuration where other rows have their table.
inline constexpr char s_domainsName[] = "domains";
inline constexpr char s_usersName[] = "users";

// Takes who makes the changes of this process, for all records: the user of the operating system,
// the one behind sudo, the host, and the command line. No option of this tool takes a secret.
// Called before there are threads.
void setChangeAuthor(int argc, const char* const* argv);

// "ann", "ann as root" with sudo.
std::string userText(const std::string& user, const std::string& sudoUser);

// What became of a row; no text where there was none, or is none any more. What is about a whole
// table has no name.
struct RowChange {
  std::string table;  // The SQL name.
  std::string name;   // The alias or the private address; "SQLTABLE ADDRESS" of a rule.
  std::optional<std::string> before;
  std::optional<std::string> after;
};

// The creation of the SQL table `table`, and the end of one with so many rows.
RowChange creationOf(const std::string& table);
RowChange dropOf(const std::string& table, std::uint64_t rows);

// The change as --dry-run shows changes: "+ KEY:TEXT", "- KEY:TEXT", "~ KEY:OLD -> NEW".
std::string textOf(const RowChange& change);

// Many rows of one table as one text, for which the server needs a tenth of the time; and back,
// calling `take` for each. Throws Failure, `BadData`, for a text that is none.
std::string packed(const std::vector<RowChange>& changes, std::size_t first, std::size_t end);
void unpack(const std::string& table, std::string_view text,
            const std::function<void(RowChange)>& take);

// The first rows of a change, shortened, and how many more there are: for the log.
class ChangeSummary {
 public:
  void add(const RowChange& change);
  [[nodiscard]] std::string text() const;

 private:
  std::string m_text;
  std::size_t m_rows = 0;
};

// Logs a change in one line: syslog, facility mail. `number` is 0 for one that is not recorded.
void logChange(std::uint64_t number, const std::string& outcome, const ChangeSummary& summary);

// A transaction with its record: one change. One thread, together with the connection.
class RecordedChange {
 public:
  // Starts the transaction; `connection` must outlive the object. Throws Exception.
  explicit RecordedChange(Database::Connection& connection, std::string_view outcome = s_done);

  // Notes what becomes of a row; nothing when both texts are the same. The row must be locked by
  // now: then the numbers of the changes of a row are in their order. Throws as commit() does.
  void note(RowChange change);
  // Writes the record and commits both, and logs the change unless it is one that is only begun.
  // Without a note there is no record. Throws Exception as Database::Transaction does, and Failure
  // when the user may not write the record; the change has not been made then.
  void commit();

  // On which the statements of the change run.
  [[nodiscard]] Database::Connection& connection() noexcept { return m_connection; }
  // Of the record; 0 before there is one, and when the database has no history.
  [[nodiscard]] std::uint64_t number() const noexcept { return m_number; }
  [[nodiscard]] const ChangeSummary& summary() const noexcept { return m_summary; }

 private:
  void writeRows();
  void writeHead();
  void send();
  void send(std::size_t first, std::size_t end);
  std::string valuesOf(const RowChange& row, std::size_t count);
  void insert(const std::string& values);

  Database::Connection& m_connection;
  std::string_view m_outcome;
  Database::Transaction m_transaction;
  std::vector<RowChange> m_rows;  // Those not written yet.
  std::size_t m_bytes = 0;        // Of them.
  std::uint64_t m_number = 0;
  std::uint64_t m_written = 0;  // Rows.
  std::size_t m_packet = 0;     // The most bytes of a statement.
  bool m_isAbsent = false;      // The history.
  ChangeSummary m_summary;
};

// Notes how the change `number`, which was begun, has ended. Throws Exception.
void setOutcome(Database::Connection& connection, std::uint64_t number, std::string_view outcome);

}  // namespace Tessel::Tool

#endif
