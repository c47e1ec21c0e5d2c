// What the mask commands say in common about rows that are broken.
#include "cli/MaskReport.h"

#include <set>

#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

Failure brokenMask(const MaskRow& row, const std::string& table) {
  return {ExitCode::BadData, "broken row " + textOf({row}) + " of table " + table, row.why,
          "correct or delete the row with an SQL client, by its private text"};
}

void nameMaskFault(const Exception& exception, const Session& session) {
  if (!isAddressFault(exception)) throw;
  bool named = false;
  // Opening a store reads the default tables too.
  for (const std::string& table :
       std::set<std::string>{maskTableName(session.tableName()), maskTableName("")}) {
    for (const MaskRow& row : MaskTable(table).rows("")) {
      const bool unreadable = row.fault == RowFault::BadKey || row.fault == RowFault::BadValue;
      if (unreadable) report(brokenMask(row, table));
      named = named || unreadable;
    }
  }
  throw Failure(ExitCode::BadData,
                named ? "reading the mask table" : "reading table alias, which is read as well",
                reasonOf(exception),
                named ? "the table has a row that is not a valid pair; 'tsl-address-map mask list'"
                        " names every such row"
                      : "'tsl-address-map alias list' names every row that is not a valid alias");
}

}  // namespace Tessel::Tool
