// What the alias commands say in common.
#include "cli/AliasReport.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

Json jsonOf(const std::set<EmailAddress>& addresses) {
  Json list = Json::array();
  for (const EmailAddress& address : addresses) list.push_back(address.address());
  return list;
}

void sayNoAlias(const EmailAddress& alias, const Session& session) {
  say("no alias " + alias.address() + " in table " + aliasTableName(session.tableName()));
}

Failure brokenRow(const AliasRow& row, const std::string& table) {
  return {ExitCode::BadData, "broken row '" + row.name + "' of table " + table, row.why,
          row.alias.isNull() ? "correct or delete the row with an SQL client, by its name"
                             : "set its members with 'alias set', or remove it with 'alias"
                               " remove'"};
}

void nameTableFault(const Exception& exception, const Session& session) {
  if (!isAddressFault(exception)) throw;
  bool named = false;
  // Opening a store reads the default tables too.
  for (const std::string& table :
       std::set<std::string>{aliasTableName(session.tableName()), "alias"}) {
    for (const AliasRow& row : AliasTable(table).rows("")) {
      const bool unreadable = row.fault == RowFault::BadKey || row.fault == RowFault::BadValue;
      if (unreadable) report(brokenRow(row, table));
      named = named || unreadable;
    }
  }
  throw Failure(ExitCode::BadData,
                named ? "reading the alias table" : "reading table mask, which is read as well",
                reasonOf(exception),
                named
                    ? "the table has a row that is not a valid alias; 'tsl-address-map alias list'"
                      " names every such row"
                    : "correct or delete the row with that text with an SQL client");
}

}  // namespace Tessel::Tool
