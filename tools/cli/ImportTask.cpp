// Bringing a file into a table.
#include "cli/ImportTask.h"

#include "failure/Failure.h"
#include "tables/Retry.h"
#include "terminal/Say.h"
#include "terminal/Terminal.h"

namespace Tessel::Tool {

namespace {

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

std::unique_ptr<TableImport> s_importOnce(const ImportTask& task, const std::string& subject,
                                          Progress& progress) {
  auto change = std::make_unique<TableImport>(task.format, task.table, task.file, task.rest);
  if (!task.format.hasPublic) {
    change->refuseHarm(task.refusesLoops ? TableImport::Loops::Refuse : TableImport::Loops::Allow,
                       task.agreed == nullptr);
  }
  change->compare(!task.dryRun, progress);
  if (task.dryRun) return change;
  if (task.agreed != nullptr && !change->isLike(*task.agreed)) {
    throw Failure(ExitCode::Unavailable, "table " + task.table,
                  "somebody has changed it since the question", "try again");
  }
  change->write(progress);
  s_commit(*change, subject);
  return change;
}

}  // namespace

std::unique_ptr<TableImport> carryOut(const ImportTask& task, Progress& progress) {
  const std::string subject = "importing " + task.file.name() + " into table " + task.table;
  try {
    return retryLost([&] { return s_importOnce(task, subject, progress); });
  } catch (const Exception& exception) {
    const Failure failure = failureOf(exception, subject);
    throw Failure(failure.code(), failure.subject(), failure.why(),
                  "nothing was written; " + failure.hint());
  }
}

void tellRemovedRules(const TableImport& import) {
  if (import.removedRules() == 0) return;
  say("the rules of removed aliases are removed, too: " + std::to_string(import.removedRules()));
}

void tellHowToUndo(const TableImport& import) {
  if (import.number() == 0 || !isTerminal(Stream::Error)) return;
  say("'tsl-address-map undo " + std::to_string(import.number()) + "' takes this back");
}

void showRows(const TableImport& import, const std::function<void(const std::string&)>& show) {
  for (const StoredRow& row : import.removed()) show(printable("- " + row.key + ":" + row.value));
  for (const ChangedRow& row : import.changed()) {
    show(printable("~ " + changeOf(row.formerKey(), row.before.value, *row.entry)));
  }
  for (const FileEntry* entry : import.added()) show(printable("+ " + entry->line()));
}

Json rowsOf(const TableImport& import) {
  Json rows = Json::array();
  const auto add = [&rows](const char* sign, const std::string& line) {
    rows.push_back(Json{{"change", sign}, {"line", printable(line)}});
  };
  for (const StoredRow& row : import.removed()) add("-", row.key + ":" + row.value);
  for (const ChangedRow& row : import.changed()) {
    add("~", row.entry->line());
    rows.back()["former"] = printable(row.formerKey() + ":" + row.before.value);
  }
  for (const FileEntry* entry : import.added()) add("+", entry->line());
  return rows;
}

}  // namespace Tessel::Tool
