// The commands `alias export` and `mask export`.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/RuleFile.h"
#include "database/Connection.h"
#include "database/Transaction.h"
#include "files/ExportFile.h"
#include "files/FileSyntax.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/SpellingIndex.h"
#include "tables/SpellingSearch.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Rows that are held in memory at a time.
constexpr std::size_t s_rowsPerStatement = 1000;

struct ExportArguments {
  std::string path;
  std::string format = "native";
  std::string domain;
  bool rules = false;
};

// The rows of a table as they are at one moment, read some at a time. One thread.
class TableReader {
 public:
  // Both formats must outlive the reader; `table` must be known to be safe in SQL. The rows are
  // limited to those of `domain`, in any spelling, unless it is empty.
  TableReader(const TableFormat& format, const FileSyntax& syntax, std::string table,
              std::string domain)
      : m_format(format),
        m_syntax(syntax),
        m_reader(format.kind),
        m_table(std::move(table)),
        m_domain(std::move(domain)),
        m_connection(std::string(s_database)),
        m_snapshot(isolated(m_connection)) {}

  // Calls `take` with the line of each good row in the order of the table's key, and reports the
  // others. `progress` counts the rows. The number of good rows.
  template <class Take>
  std::size_t read(Progress& progress, Take take) {
    progress.begin("exporting", "rows");
    // Counting costs a walk over the key.
    if (Progress::isWatched() && m_domain.empty()) {
      progress.setTotal(countRows(m_connection, m_table));
    }
    m_isFirst = m_seen.size() == 0;
    m_seen = {};
    m_public = {};
    m_good = true;
    std::size_t good = 0;
    std::string last;
    std::size_t met = s_rowsPerStatement;
    for (bool first = true; met == s_rowsPerStatement; first = false) {
      const std::string statement = page(first, last);
      met = 0;
      selectPairs(m_connection, statement, [&](std::string_view key, std::string_view value) {
        ++met;
        progress.add(1);
        last = key;
        std::string text;
        // The statement gives more rows than those of the domain.
        if (!isOfDomain(key, m_key) || !check(key, value, text)) return;
        ++good;
        take(text);
      });
    }
    return good;
  }

  // What read() met were good rows only.
  [[nodiscard]] bool isGood() const { return m_good; }

 private:
  // Every statement of the transaction sees the table as its first one does.
  static Database::Connection& isolated(Database::Connection& connection) {
    runStatement(connection, "set transaction isolation level repeatable read;");
    return connection;
  }

  [[nodiscard]] std::string page(bool first, const std::string& last) const {
    const std::string key = m_format.key;
    std::string conditions = m_domain.empty() ? "" : " where " + domainCondition(key, m_domain);
    if (!first) {
      conditions += conditions.empty() ? " where " : " and ";
      conditions += key + " > " + literal(last);
    }
    return "select " + key + ", " + m_format.value + " from " + m_table + conditions +
           " order by " + key + " limit " + std::to_string(s_rowsPerStatement) + ";";
  }

  bool check(std::string_view key, std::string_view value, std::string& text) {
    TableEntry entry;
    if (const auto fault = readEntry(m_reader, key, value, entry)) return refuse(key, fault->why);
    // Two lines of one address are two that an import asks about.
    warnOfSecond(key, m_seen, entry.key.address(), "address");
    if (m_format.hasPublic) warnOfSecond(key, m_public, entry.value(), "public address");
    auto fault = m_syntax.write(entry, text);
    if (!fault && text.starts_with(s_byteOrderMark)) {
      fault = formatFault("its line would begin with a byte order mark");
    }
    if (!fault) return true;
    m_good = false;
    report(Failure(
        ExitCode::BadData, "row '" + std::string(key) + "' of table " + m_table,
        std::string("the format ") + m_syntax.name() + " cannot express it: " + fault->why, ""));
    return false;
  }

  // Adds `address`, which is called `what`, of the row `key` to `seen`; reports it, once, if a row
  // before has it.
  void warnOfSecond(std::string_view key, SpellingIndex& seen, const std::string& address,
                    const char* what) {
    const AddressIndex::Added added = seen.add(address);
    if (added.isNew || !m_isFirst) return;
    const std::string other(seen.text(added.id));
    say("warning: row '" + std::string(key) + "' of table " + m_table + " has the " + what +
        " of another row, '" + other + "'; an import takes " +
        (stringCompareNoCase(other, address, 0) ? "one of the two" : "both with --new-spelling"));
  }

  // Reports the broken row of `key`; false.
  bool refuse(std::string_view key, const std::string& why) {
    m_good = false;
    report(Failure(ExitCode::BadData, "broken row '" + std::string(key) + "' of table " + m_table,
                   why, "correct or delete the row with an SQL client"));
    return false;
  }

  const TableFormat& m_format;
  const FileSyntax& m_syntax;
  RowReader m_reader;
  std::string m_table;
  std::string m_domain;
  std::string m_key = comparisonDomain(m_domain);
  Database::Connection m_connection;
  Database::Transaction m_snapshot;
  SpellingIndex m_seen;
  SpellingIndex m_public;
  bool m_isFirst = true;  // The rows are read for the first time.
  bool m_good = true;
};

// Calls `write` with the lines of the table, of which the header `header` is the first, if there is
// one. The number of rows.
template <class Write>
std::size_t s_write(TableReader& reader, std::string header, Progress& progress, Write write) {
  if (!header.empty()) write(header += '\n');
  return reader.read(progress, [&](std::string& line) { write(line += '\n'); });
}

void s_refuseBroken(const TableReader& reader, const std::string& table) {
  if (reader.isGood()) return;
  throw Failure(ExitCode::BadData, "exporting table " + table,
                "it has rows that cannot be exported",
                "nothing was exported: half a table must not look like a whole one");
}

void s_exportToOutput(Session& session, TableReader& reader, const std::string& header,
                      const std::string& table) {
  if (session.isJson()) {
    throw Failure(ExitCode::Usage, "--json", "the table itself goes to standard output",
                  "name a FILE to export to");
  }
  // What is written there cannot be taken back, so all rows are checked before.
  Progress progress;
  progress.endForPager();
  reader.read(progress, [](const std::string&) {});
  s_refuseBroken(reader, table);
  // The lines show the progress.
  if (isTerminal(Stream::Output)) progress.end();
  s_write(reader, header, progress, [&session](std::string& line) {
    line.pop_back();
    session.output().line(line);
  });
}

void s_exportToFile(Session& session, TableReader& reader, const std::string& header,
                    const std::string& path, const std::string& table) {
  ExportFile file(path);
  Progress progress;
  if (file.isDirect()) {
    reader.read(progress, [](const std::string&) {});
    s_refuseBroken(reader, table);
  }
  const std::size_t rows =
      s_write(reader, header, progress, [&file](const std::string& line) { file.write(line); });
  progress.end();
  s_refuseBroken(reader, table);
  file.finish();
  session.detail("exported " + std::to_string(rows) + " rows of table " + table + " to " + path);
  if (session.isJson()) session.output().document(Json{{"file", printable(path)}, {"rows", rows}});
}

std::unique_ptr<FileSyntax> s_syntax(const ExportArguments& arguments, const TableFormat& format) {
  // The other formats have the domain in each address.
  const std::string domain = arguments.format == "aliases" ? arguments.domain : "";
  auto syntax = FileSyntax::named(arguments.format, format, domain);
  if (syntax->format() != FileFormat::Aliases || !arguments.domain.empty()) return syntax;
  throw Failure(ExitCode::Usage, "--format aliases", "its names are those of one domain",
                "give --domain DOMAIN");
}

ExitCode s_export(Session& session, const ExportArguments& arguments, const TableFormat& format) {
  if (arguments.rules) return exportRules(session, arguments.path);
  const auto syntax = s_syntax(arguments, format);
  const std::string domain = arguments.domain.empty() ? "" : parseDomain(arguments.domain);
  session.tellTarget(format.kind);
  const std::string table = sqlTableName(format.kind, session.tableName());
  TableReader reader(format, *syntax, table, domain);
  if (arguments.path.empty() || arguments.path == "-") {
    s_exportToOutput(session, reader, syntax->header(), table);
  } else {
    s_exportToFile(session, reader, syntax->header(), arguments.path, table);
  }
  return ExitCode::Done;
}

}  // namespace

void addExportCommand(Command& group, const TableFormat& format) {
  const auto arguments = std::make_shared<ExportArguments>();
  const std::string words = textOf(format.kind) + " export";
  const std::string line = format.hasPublic ? "PRIVATE:PUBLIC" : "ALIAS:MEMBER,MEMBER...";
  Command command = group.command(
      "export", "Write the rows of the table to a file, or to standard output",
      "  tsl-address-map " + words + " table.txt\n  tsl-address-map " + words +
          " --domain example.com >table.txt\n" +
          (format.hasPublic ? "" : "  tsl-address-map alias export --rules rules.txt\n") +
          "Each line is " + line +
          ", or what --format says, in the order of the table's key. A file is replaced as a whole "
          "or not at\nall. A"
          " table with broken rows is not exported; they are named on standard error, and the exit"
          " status is 65.\nWith --json and FILE {\"file\", \"rows\"}.\n",
      Preparation::Database,
      [arguments, &format](Session& session) { return s_export(session, *arguments, format); });
  command.optionalArgument("FILE", arguments->path, "The file; none, or -, for standard output");
  Option syntax = command.option("--format", arguments->format, formatNames(format), "The format");
  Option domain = command.option(
      "--domain", arguments->domain, "DOMAIN",
      format.hasPublic ? "Only the pairs with private addresses of this domain"
                       : "Only the aliases of this domain; the format aliases needs it, since its"
                         " names have none");
  if (format.hasPublic) return;
  const Option rules =
      command.flag("--rules", arguments->rules,
                   "Write the rules of the aliases instead, as 'alias rule export'");
  syntax.excludes(rules);
  domain.excludes(rules);
}

}  // namespace Tessel::Tool
