// Bringing a file into a table, as the commands do that write many rows: carried out as a whole,
// and shown row by row.
#ifndef TSL_TOOLS_CLI_IMPORTTASK_H
#define TSL_TOOLS_CLI_IMPORTTASK_H

#include <functional>
#include <memory>
#include <string>

#include "files/TableFile.h"
#include "files/TableImport.h"
#include "terminal/Output.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

// What an import works with. The references must outlive it.
struct ImportTask {
  const TableFormat& format;
  std::string table;
  const TableFile& file;
  TableImport::Rest rest;
  bool refusesLoops;
  bool dryRun;
  // What was found before, and somebody has agreed to: nothing else is written, and no warning is
  // repeated.
  const TableImport* agreed = nullptr;
};

// Writes what the file changes, in one transaction, or with `dryRun` only finds out. Throws
// Failure, and then nothing was written, or the failure says that this is unknown.
std::unique_ptr<TableImport> carryOut(const ImportTask& task, Progress& progress);

// Reports that rules are gone with their aliases, if any are.
void tellRemovedRules(const TableImport& import);
// Says at a terminal how to take back what was written, if it was recorded.
void tellHowToUndo(const TableImport& import);

// Calls `show` with a line for each row, fit to be shown: "- KEY:VALUE", "~ KEY:OLD -> NEW",
// "+ KEY:VALUE".
void showRows(const TableImport& import, const std::function<void(const std::string&)>& show);
// The rows as a list of {"change", "line", "former"}.
Json rowsOf(const TableImport& import);

}  // namespace Tessel::Tool

#endif
