// What the commands on rows say in common: addresses and rows as text and JSON, and rows that are
// missing or broken.
#ifndef TSL_TOOLS_CLI_ROWREPORT_H
#define TSL_TOOLS_CLI_ROWREPORT_H

#include <array>
#include <set>
#include <string>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "cli/RowFilter.h"
#include "cli/Session.h"
#include "failure/Failure.h"
#include "tables/AliasTable.h"
#include "tables/HistoryReader.h"
#include "tables/MaskTable.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

// The addresses as a list of texts.
Json jsonOf(const std::set<EmailAddress>& addresses);

// The row as it is in the table.
Json jsonOf(const MaskRow& row);

// The rule as {"writers", "listed", "owners", "expires", "note", "contact"}; null for what it does
// not say.
Json jsonOf(const AliasRule& rule);

// That the table has no alias `alias`, in words.
std::string noAlias(const EmailAddress& alias, const Session& session);

// The failure that the broken row `row` of the SQL table `table` is.
Failure brokenRow(const AliasRow& row, const std::string& table);
Failure brokenRow(const MaskRow& row, const std::string& table);
// The failure that the rule of `name` is, which cannot be read.
Failure brokenRule(const std::string& name);

// Warns when the history begins after `since`.
void warnOfBegin(HistoryReader& reader, const std::string& since);

// Turns `exception`, thrown while the library read the table of `kind`, into a failure after naming
// the rows that cannot be read, when it is those that it is about. Throws the failure, or again
// what is being handled. Requires: called in the handler of `exception`.
[[noreturn]] void nameTableFault(const Exception& exception, const Session& session,
                                 TableKind kind);

// What `ask`, which reads the table through the library, returns; names the rows that it fails at.
template <class Ask>
auto withTableFaultsNamed(const Session& session, TableKind kind, Ask ask) {
  try {
    return ask();
  } catch (const Exception& exception) {
    nameTableFault(exception, session, kind);
  }
}

inline bool takes(const RowFilter& filter, const AliasRow& row) {
  return filter.takes(row.name, row.members);
}
inline bool takes(const RowFilter& filter, const MaskRow& row) {
  return filter.takes(row.privateText, std::array{row.publicAddress});
}

// Lists the rows of the table that `options` let through: calls `add` for each that is not broken,
// and reports the others.
template <class Table, class Add>
ExitCode listRows(Session& session, TableKind kind, const RowFilterOptions& options, Add add) {
  const std::string table = sqlTableName(kind, session.tableName());
  const RowFilter filter(options, table);
  session.tellTarget(kind);
  const auto rows = Table(table).rows(filter.domain());
  ExitCode code = ExitCode::Done;
  ItemList list(session.output());
  for (const auto& row : rows) {
    if (!takes(filter, row)) continue;
    if (row.fault != RowFault::None) {
      report(brokenRow(row, table));
      code = ExitCode::BadData;
    } else {
      add(row, list);
    }
  }
  list.end();
  return code;
}

}  // namespace Tessel::Tool

#endif
