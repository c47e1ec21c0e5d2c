// The commands `alias import` and `mask import`.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "cli/Command.h"
#include "cli/TableFile.h"
#include "cli/TableImport.h"

namespace Tessel::Tool {

namespace {

struct Arguments {
  std::string file;
  TableFile::Options options;
  bool allowCycle = false;
  bool dryRun = false;
  bool replace = false;
  bool force = false;
};

// Tells how far the import is, when a person looks on; nothing otherwise.
class Progress {
 public:
  explicit Progress(std::size_t all) : m_all(all), m_shows(isatty(STDERR_FILENO) == 1) {}
  ~Progress() {
    // The line goes again: what follows is the summary, or a message.
    if (m_shows) static_cast<void>(std::fputs("\r\x1b[K", stderr));
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(std::size_t rows) const {
    if (m_shows) static_cast<void>(std::fprintf(stderr, "\rwriting: %zu of %zu rows", rows, m_all));
  }

 private:
  std::size_t m_all;
  bool m_shows;
};

// Calls `visit` with the sign and the line of each row that changes.
template <class Visit>
void s_forEachChange(const TableImport& import, Visit visit) {
  for (const StoredRow& row : import.removed()) visit("-", row.key + ":" + row.value);
  for (const ChangedRow& row : import.changed()) visit("~", row.entry->line());
  for (const FileEntry* entry : import.added()) visit("+", entry->line());
}

void s_answer(Session& session, const TableImport& import, bool dryRun) {
  if (session.isJson()) {
    Json document{{"added", import.added().size()},
                  {"changed", import.changed().size()},
                  {"left", import.left()},
                  {"removed", import.removed().size()}};
    Json rows = Json::array();
    if (dryRun) {
      s_forEachChange(import, [&rows](const char* sign, const std::string& line) {
        rows.push_back(Json{{"change", sign}, {"line", printable(line)}});
      });
      document["rows"] = rows;
    }
    session.output().document(document);
    return;
  }
  if (dryRun) {
    s_forEachChange(import, [&session](const char* sign, const std::string& line) {
      session.output().line(std::string(sign) + " " + printable(line));
    });
  }
  session.output().line(std::to_string(import.added().size()) + " added, " +
                        std::to_string(import.changed().size()) + " changed, " +
                        std::to_string(import.left()) + " left, " +
                        std::to_string(import.removed().size()) + " removed");
}

void s_commit(TableImport& import, const std::string& subject) {
  try {
    import.commit();
  } catch (const Exception& exception) {
    if (!isOutcomeUnknown(exception)) throw;
    throw Failure(ExitCode::Unavailable, subject, reasonOf(exception),
                  "whether the import was written is unknown: the table is either as before or as"
                  " the import makes it; look with --dry-run, and import again");
  }
}

void s_carryOut(TableImport& import, const std::string& subject, bool dryRun) {
  try {
    import.compare(!dryRun);
    if (dryRun) return;
    const Progress progress(import.added().size() + import.changed().size() +
                            import.removed().size());
    import.write([&progress](std::size_t rows) { progress.show(rows);
  });
  s_commit(import, subject);
}
catch (const Exception& exception) {
  const Failure failure = failureOf(exception, subject);
  throw Failure(failure.code(), failure.subject(), failure.why(),
                "nothing was written; " + failure.hint());
}
}  // namespace

ExitCode s_import(Session& session, const Arguments& arguments, const TableFormat& format) {
  const TableFile file(format, arguments.file, arguments.options);
  if (arguments.replace && !arguments.force && file.entries().empty()) {
    throw Failure(ExitCode::BadData, file.name(),
                  "it is empty, and --replace would empty the table",
                  "nothing was written; add --force if the table is to be emptied");
  }
  session.tellTarget();
  const std::string table = format.table(session.tableName());
  TableImport import(format, table, file,
                     arguments.replace ? TableImport::Rest::Remove : TableImport::Rest::Keep);
  if (!format.hasPublic && !arguments.allowCycle) import.refuseCycles();
  s_carryOut(import, "importing " + file.name() + " into table " + table, arguments.dryRun);
  s_answer(session, import, arguments.dryRun);
  return ExitCode::Done;
}

}  // namespace Tessel::Tool

void addImportCommand(CLI::App& group, const TableFormat& format, Choice& chosen) {
  const auto arguments = std::make_shared<Arguments>();
  const std::string words = std::string(format.group) + " import";
  const std::string line = format.hasPublic ? "PRIVATE:PUBLIC" : "ALIAS:MEMBER,MEMBER...";
  CLI::App& import = addCommand(
      group, "import", "Bring the lines of a file into the table, all or none",
      "  tsl-address-map " + words + " table.txt --dry-run\n  tsl-address-map " + words +
          " --replace table.txt\n  tsl-address-map " + words + " - <table.txt\n" + "Each line is " +
          line +
          ", or what --format says. The whole file is checked first: bad lines are reported "
          "as\nFILE:LINE: reason, nothing"
          " is written then, and the exit code is 65. Rows are added and changed; what the\nfile"
          " does not mention stays. Prints how many rows were added, changed, left and removed;"
          " with --json\n{\"added\", \"changed\", \"left\", \"removed\"}, with --dry-run also"
          " \"rows\".\n",
      chosen, {words, Preparation::Database, [arguments, &format](Session& session) {
                 return s_import(session, *arguments, format);
               }});
  import.add_option("FILE", arguments->file, "The file, or - for standard input")->required();
  import.add_flag(
      "--dry-run", arguments->dryRun,
      "Write nothing; show each row that would be added (+), changed (~) or removed (-)");
  CLI::Option* const replace = import.add_flag(
      "--replace", arguments->replace,
      "Remove the rows that the file does not mention, so that the table ends as the file");
  import.add_flag("--force", arguments->force, "With --replace: also when the file is empty")
      ->needs(replace);
  import
      .add_option("--format", arguments->options.format,
                  "The format of the file; found out from its first lines without it")
      ->option_text(formatNames(format));
  if (format.hasPublic) return;
  import
      .add_option("--domain", arguments->options.domain,
                  "With the format aliases: the domain of names that have none")
      ->option_text("DOMAIN");
  import.add_flag("--allow-cycle", arguments->allowCycle,
                  "Write aliases even if they lead back to themselves");
}

}  // namespace Tessel::Tool
