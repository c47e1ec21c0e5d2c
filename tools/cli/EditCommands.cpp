// The commands `alias edit` and `mask edit`.
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/ImportTask.h"
#include "cli/RowFilter.h"
#include "database/Connection.h"
#include "files/FileSyntax.h"
#include "files/ShownRows.h"
#include "files/TableFile.h"
#include "tables/AddressKey.h"
#include "tables/SpellingIndex.h"
#include "tables/SpellingSearch.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Confirm.h"
#include "terminal/EditedFile.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct EditArguments {
  std::vector<std::string> addresses;
  RowFilterOptions filter;
  bool localNames = false;
  bool newSpelling = false;
  bool allowCycle = false;
  bool force = false;
  bool yes = false;
  bool dryRun = false;
};

// What the command works on.
struct Edit {
  const EditArguments& arguments;
  const TableFormat& format;
  std::string table;
  ShownRows rows{};
  std::string text{};       // Their lines.
  bool hasDoubles = false;  // Some are spellings of one address.
};

// Reads the rows that are to be edited.
class Selection {
 public:
  explicit Selection(Edit& edit)
      : m_edit(edit), m_filter(edit.arguments.filter, edit.table), m_reader(edit.format.kind) {
    for (const std::string& text : edit.arguments.addresses) {
      m_missing.emplace(comparisonKey(parseAddress(text, false).address()), text);
    }
    m_wanted = m_missing;
  }

  // Throws Failure, `NotFound`, when an address has no row, or no row is wanted.
  void read() {
    Database::Connection connection{std::string(s_database)};
    Progress progress;
    progress.begin("reading", "rows");
    std::string statement = "select ";
    statement.append(m_edit.format.key).append(", ").append(m_edit.format.value);
    statement.append(" from ").append(m_edit.table);
    if (!m_filter.domain().empty()) {
      statement += " where " + domainCondition(m_edit.format.key, m_filter.domain());
    }
    statement.append(" order by ").append(m_edit.format.key).append(";");
    selectPairs(
        connection, statement,
        [this](std::string_view key, std::string_view value) { take(key, value); },
        progress.counter());
    const std::string in = " in table " + m_edit.table;
    if (!m_missing.empty()) {
      throw none(std::string("no ") + textOf(m_edit.format.kind) + " " + m_missing.begin()->second +
                 in);
    }
    const bool isAll = m_wanted.empty() && m_edit.arguments.filter.isEmpty();
    if (m_edit.rows.size() == 0 && !isAll) throw none("nothing is selected" + in);
  }

 private:
  [[nodiscard]] Failure none(const std::string& why) const {
    return {ExitCode::NotFound, std::string(textOf(m_edit.format.kind)) + " edit", why, ""};
  }

  void take(std::string_view key, std::string_view value) {
    if (!isOfDomain(key, m_domainKey)) return;
    TableEntry entry;
    const auto fault = readEntry(m_reader, key, value, entry);
    const std::string name = fault ? std::string(key) : entry.key.address();
    if (!m_wanted.empty()) {
      if (!m_wanted.contains(comparisonKey(name))) return;
      m_missing.erase(comparisonKey(name));
    } else if (!m_filter.takes(name, entry.values)) {
      return;
    }
    if (fault) return tellBroken(key, fault->why);
    std::string line = entry.line();
    if (line.starts_with(s_byteOrderMark)) {
      return tellBroken(key, "its line would begin with a byte order mark");
    }
    const bool isNew = m_keys.add(name).isNew;
    const bool isNewValue = !m_edit.format.hasPublic || m_values.add(entry.value()).isNew;
    m_edit.hasDoubles = m_edit.hasDoubles || !isNew || !isNewValue;
    m_edit.rows.add(key, value, entry);
    m_edit.text += line += '\n';
  }

  void tellBroken(std::string_view key, const std::string& why) const {
    say("warning: row '" + std::string(key) + "' of table " + m_edit.table +
        " cannot be edited, and stays: " + why);
  }

  Edit& m_edit;
  const RowFilter m_filter;
  const std::string m_domainKey = comparisonDomain(m_filter.domain());
  RowReader m_reader;
  std::map<std::string, std::string> m_wanted;   // The addresses that were given, by their keys.
  std::map<std::string, std::string> m_missing;  // Those without a row.
  SpellingIndex m_keys;
  SpellingIndex m_values;  // Of masks.
};

std::string s_countsOf(const TableImport& import) {
  return std::to_string(import.added().size()) + " added, " +
         std::to_string(import.changed().size()) + " changed, " +
         std::to_string(import.removed().size()) + " removed";
}

ExitCode s_answerUnchanged(Session& session, const EditArguments& arguments) {
  say("nothing changed");
  if (session.isJson()) {
    answerChange(session,
                 Json{{"added", 0}, {"changed", 0}, {"removed", 0}, {"rows", Json::array()}}, "",
                 arguments.dryRun);
  }
  return ExitCode::Done;
}

// Shows what is about to be written, and asks for it unless that is settled.
bool s_mayWrite(Session& session, const Edit& edit, const TableFile& file,
                const TableImport& import) {
  const bool isEmpty = file.entries().empty();
  const bool isSettled =
      edit.arguments.dryRun || (edit.arguments.yes && (!isEmpty || edit.arguments.force));
  // A JSON document has the rows, but comes after the question.
  if (!session.isJson()) {
    showRows(import, [&](const std::string& line) { session.output().line(line); });
    session.output().flush();
  } else if (!isSettled) {
    showRows(import, sayShown);
  }
  if (isSettled) return true;
  const std::string all = std::to_string(edit.rows.size());
  if (!isEmpty) return confirm("Write these changes: " + s_countsOf(import) + "?");
  if (!edit.arguments.yes) return confirm("The file is empty. Remove all " + all + " rows?");
  throw Failure(ExitCode::BadData, file.name(),
                "it is empty, and all " + all + " rows would be removed",
                "nothing was written; add --force to remove them");
}

// What came of one run of the editor.
enum class Outcome { Unchanged, Written, Shown, Declined };

Outcome s_bring(Session& session, Edit& edit, const EditedFile& edited) {
  if (!edited.isChanged()) return Outcome::Unchanged;
  const EditArguments& arguments = edit.arguments;
  Progress progress;
  TableFile::Options options{"native", ""};
  options.localNames = localNamesOf(arguments.localNames);
  options.newSpelling = arguments.newSpelling || edit.hasDoubles;
  options.shown = &edit.rows;
  const TableFile file(edit.format, edited.path(), options, progress);
  ImportTask task{edit.format,           edit.table, file, {true, "", &edit.rows},
                  !arguments.allowCycle, true};
  auto import = carryOut(task, progress);
  progress.end();
  if (import->added().size() + import->changed().size() + import->removed().size() == 0) {
    return Outcome::Unchanged;
  }
  if (!s_mayWrite(session, edit, file, *import)) return Outcome::Declined;
  if (!arguments.dryRun) {
    task.dryRun = false;
    task.agreed = import.get();
    auto written = carryOut(task, progress);
    progress.end();
    tellRemovedRules(*written);
    import = std::move(written);
  }
  if (!session.isJson()) {
    session.output().line(s_countsOf(*import));
    tellHowToUndo(*import);
  } else {
    answerChange(session,
                 Json{{"added", import->added().size()},
                      {"changed", import->changed().size()},
                      {"removed", import->removed().size()},
                      {"rows", rowsOf(*import)}},
                 "", arguments.dryRun);
  }
  return arguments.dryRun ? Outcome::Shown : Outcome::Written;
}

// Lets the person edit until the file is written, or he gives up.
ExitCode s_editUntilDone(Session& session, Edit& edit) {
  EditedFile edited(edit.table + ".txt", edit.text);
  for (;;) {
    edited.edit();
    try {
      const Outcome outcome = s_bring(session, edit, edited);
      if (outcome == Outcome::Unchanged || outcome == Outcome::Written) edited.discard();
      if (outcome == Outcome::Unchanged) return s_answerUnchanged(session, edit.arguments);
      if (outcome != Outcome::Declined) return ExitCode::Done;
      if (confirm("Edit again?")) continue;
      say("nothing was changed");
      return ExitCode::Done;
    } catch (const Failure& failure) {
      if (failure.code() != ExitCode::BadData || !canAsk()) throw;
      report(failure);
      if (!confirm("Edit again?")) return failure.code();
    }
  }
}

ExitCode s_edit(Session& session, const EditArguments& arguments, const TableFormat& format) {
  const std::string words = std::string(textOf(format.kind)) + " edit";
  if (!arguments.addresses.empty() && !arguments.filter.isEmpty()) {
    throw Failure(ExitCode::Usage, words, "it takes addresses, or options that select rows",
                  "see 'tsl-address-map " + words + " --help'");
  }
  if (!arguments.yes && !arguments.dryRun && !canAsk()) {
    throw Failure(ExitCode::BadData, words, "nobody can be asked whether to write the changes",
                  "nothing was changed; give --yes to write them");
  }
  session.tellTarget(format.kind);
  Edit edit{arguments, format, sqlTableName(format.kind, session.tableName())};
  Selection(edit).read();
  return s_editUntilDone(session, edit);
}

}  // namespace

void addEditCommand(Command& group, const TableFormat& format) {
  const auto arguments = std::make_shared<EditArguments>();
  const std::string kind = textOf(format.kind);
  const std::string line = format.hasPublic ? "PRIVATE:PUBLIC" : "ALIAS:MEMBER,MEMBER...";
  Command edit = group.command(
      "edit", "Change the rows of the table, or some of them, in an editor",
      "  tsl-address-map " + kind + " edit\n  tsl-address-map " + kind +
          (format.hasPublic ? " edit ann@inner.example\n" : " edit team@example.com\n") +
          "  tsl-address-map " + kind + " edit --match '*sales*'\n" + "Each line is " + line +
          ": a line that is changed changes its row, one that is added adds one, one\nthat is"
          " deleted removes it. The changes are shown and asked for before they are written, all or"
          " none. The\neditor is VISUAL or EDITOR, by default editor or vi. Bad lines can be"
          " edited again; what is not written is\nkept, and said where. Nothing is written when"
          " somebody has changed one of the rows meanwhile (75). With --json\n{\"added\","
          " \"changed\", \"removed\", \"rows\"}.\n",
      Preparation::Database,
      [arguments, &format](Session& session) { return s_edit(session, *arguments, format); });
  edit.optionalArguments(
      "ADDRESS", arguments->addresses,
      format.hasPublic ? "The private addresses; all without one" : "The aliases; all without one");
  addRowFilter(edit, arguments->filter, format);
  edit.flag("--new-spelling", arguments->newSpelling, "Make a row of each spelling of an address");
  if (!format.hasPublic) {
    edit.flag("--local-names", arguments->localNames,
              "Also take members without a domain, such as root");
    edit.flag("--allow-cycle", arguments->allowCycle,
              "Write aliases even if they lead back to themselves");
  }
  Option yes = edit.flag("--yes", arguments->yes, "Write the changes without asking");
  edit.flag("--force", arguments->force, "With --yes: also when all lines are deleted").needs(yes);
  addDryRun(edit, arguments->dryRun);
}

}  // namespace Tessel::Tool
