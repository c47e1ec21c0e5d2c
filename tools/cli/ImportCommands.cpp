// The commands `alias import` and `mask import`.
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/ImportTask.h"
#include "cli/RuleFile.h"
#include "files/TableFile.h"
#include "tables/TableNames.h"
#include "terminal/Confirm.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct ImportArguments {
  std::string file;
  TableFile::Options options;
  bool allowCycle = false;
  bool localNames = false;
  bool dryRun = false;
  bool replace = false;
  bool force = false;
  bool rules = false;
};

Json s_jsonOf(const std::vector<LineFaults::Fault>& faults) {
  Json list = Json::array();
  for (const LineFaults::Fault& fault : faults) {
    list.push_back(Json{{"line", fault.line}, {"reason", printable(fault.reason)}});
  }
  return list;
}

// `skipped` is null where bad lines are not left out.
void s_answer(Session& session, const TableImport& import,
              const std::vector<LineFaults::Fault>* skipped, bool dryRun) {
  if (session.isJson()) {
    Json document{{"added", import.added().size()},
                  {"changed", import.changed().size()},
                  {"left", import.left()},
                  {"removed", import.removed().size()}};
    if (skipped != nullptr) document["skipped"] = s_jsonOf(*skipped);
    if (dryRun) document["rows"] = rowsOf(import);
    session.output().document(document);
    return;
  }
  if (dryRun) showRows(import, [&](const std::string& line) { session.output().line(line); });
  session.output().line(
      std::to_string(import.added().size()) + " added, " + std::to_string(import.changed().size()) +
      " changed, " + std::to_string(import.left()) + " left, " +
      std::to_string(import.removed().size()) + " removed" +
      (skipped != nullptr ? ", " + std::to_string(skipped->size()) + " skipped" : ""));
  tellHowToUndo(import);
}

// Asks whether the table may become what `import` makes of it.
bool s_mayReplace(const TableImport& import, const std::string& table, const std::string& domain) {
  say("table " + table + ": " + std::to_string(import.removed().size()) +
      " rows would be removed, " + std::to_string(import.added().size()) + " added, " +
      std::to_string(import.changed().size()) + " changed");
  return confirm(domain.empty() ? "Replace the table?" : "Replace the rows of " + domain + "?");
}

ExitCode s_import(Session& session, const ImportArguments& arguments, const TableFormat& format) {
  if (arguments.rules) {
    return importRules(session, arguments.file, arguments.replace, arguments.dryRun);
  }
  Progress progress;
  TableFile::Options options = arguments.options;
  options.localNames = localNamesOf(arguments.localNames);
  if (!options.domain.empty()) options.domain = parseDomain(options.domain);
  const TableImport::Rest rest{arguments.replace, options.domain};
  const TableFile file(format, arguments.file, options, progress);
  if (arguments.replace && !arguments.force && file.entries().empty()) {
    throw Failure(ExitCode::BadData, file.name(),
                  "it is empty, and --replace would remove all rows" +
                      (rest.domain.empty() ? "" : " of " + rest.domain),
                  "nothing was written; add --force to remove them");
  }
  session.tellTarget(format.kind);
  const std::string table = sqlTableName(format.kind, session.tableName());
  ImportTask task{format, table, file, rest, !arguments.allowCycle, true};
  std::unique_ptr<TableImport> shown;
  if (arguments.replace && !arguments.force && !arguments.dryRun && canAsk()) {
    shown = carryOut(task, progress);
    progress.end();
    if (shown->removed().size() > shown->added().size()) {
      task.agreed = shown.get();
      if (!s_mayReplace(*shown, table, rest.domain)) {
        say("nothing was changed");
        return ExitCode::Done;
      }
    }
  }
  task.dryRun = arguments.dryRun;
  const auto change = carryOut(task, progress);
  progress.end();
  tellRemovedRules(*change);
  s_answer(session, *change, options.skipBad ? &file.skipped() : nullptr, arguments.dryRun);
  return ExitCode::Done;
}

}  // namespace

void addImportCommand(Command& group, const TableFormat& format) {
  const auto arguments = std::make_shared<ImportArguments>();
  const std::string words = textOf(format.kind) + " import";
  const std::string line = format.hasPublic ? "PRIVATE:PUBLIC" : "ALIAS:MEMBER,MEMBER...";
  Command import = group.command(
      "import", "Import the lines of a file into the table, all or none",
      "  tsl-address-map " + words + " table.txt --dry-run\n  tsl-address-map " + words +
          " --replace table.txt\n  tsl-address-map " + words +
          " --replace --domain example.com table.txt\n  tsl-address-map " + words +
          " - <table.txt\n" +
          (format.hasPublic ? "" : "  tsl-address-map alias import --rules rules.txt\n") +
          "Each line is " + line +
          ", or what --format says. The whole file is checked first: bad lines are reported "
          "as\nFILE:LINE: reason, nothing"
          " is written then, and the exit status is 65. Rows are added and changed; what the\nfile"
          " does not mention stays. Prints how many rows were added, changed, left and removed;"
          " with --json\n{\"added\", \"changed\", \"left\", \"removed\"}, with --dry-run also"
          " \"rows\".\n",
      Preparation::Database,
      [arguments, &format](Session& session) { return s_import(session, *arguments, format); });
  import.argument("FILE", arguments->file, "The file, or - for standard input");
  import.flag("--dry-run", arguments->dryRun,
              "Write nothing; show each row that would be added (+), changed (~) or removed (-)");
  Option replace = import.flag(
      "--replace", arguments->replace,
      "Remove the rows that the file does not mention, so that the table equals the file");
  Option force =
      import.flag("--force", arguments->force, "With --replace: also when the file is empty");
  force.needs(replace);
  Option skip = import.flag(
      "--skip-bad", arguments->options.skipBad,
      "Leave bad lines out, and of two lines for one address the second; import the rest");
  skip.excludes(replace);
  // None of them makes sense for rules.
  std::vector<Option> ofRows{force, skip};
  ofRows.push_back(
      import.flag("--new-spelling", arguments->options.newSpelling,
                  "Make a row of each spelling of an address, also if the table has another one"));
  ofRows.push_back(
      import.option("--format", arguments->options.format, formatNames(format),
                    "The format of the file; by default recognised from its first lines"));
  ofRows.push_back(import.option("--columns", arguments->options.columns, "NAME,NAME",
                                 std::string("The columns of a CSV file to read; by default ") +
                                     (format.hasPublic ? "private,public" : "address,members")));
  ofRows.push_back(import.option(
      "--domain", arguments->options.domain, "DOMAIN",
      format.hasPublic
          ? "Refuse pairs with private addresses of other domains; --replace removes rows"
            " of this domain only"
          : "Refuse aliases of other domains; --replace removes rows of this domain only"));
  if (format.hasPublic) return;
  ofRows.push_back(
      import.option("--default-domain", arguments->options.defaultDomain, "DOMAIN",
                    "With the formats aliases and virtual: the domain of names that have none; with"
                    " aliases by default that of --domain"));
  ofRows.push_back(import.flag("--local-names", arguments->localNames,
                               "Also import members without a domain, such as root"));
  ofRows.push_back(import.flag("--allow-cycle", arguments->allowCycle,
                               "Write aliases even if they lead back to themselves"));
  const Option rules = import.flag("--rules", arguments->rules,
                                   "Import the rules of aliases instead, as 'alias rule import'");
  for (Option& option : ofRows) option.excludes(rules);
}

}  // namespace Tessel::Tool
