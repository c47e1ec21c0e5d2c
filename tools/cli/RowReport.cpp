// What the commands on rows say in common.
#include "cli/RowReport.h"

#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

// Reports the rows of the table, and of the default one, that the library cannot read. False when
// there are none.
template <class Table>
bool s_reportUnreadable(const Session& session, TableKind kind) {
  bool any = false;
  // Opening a store reads the default tables too.
  for (const std::string& table :
       std::set<std::string>{sqlTableName(kind, session.tableName()), sqlTableName(kind, "")}) {
    for (const auto& row : Table(table).rows("")) {
      if (row.fault != RowFault::BadKey && row.fault != RowFault::BadValue) continue;
      report(brokenRow(row, table));
      any = true;
    }
  }
  return any;
}

}  // namespace

Json jsonOf(const std::set<EmailAddress>& addresses) {
  Json list = Json::array();
  for (const EmailAddress& address : addresses) list.push_back(address.address());
  return list;
}

Json jsonOf(const MaskRow& row) {
  return Json{{"private", printable(row.privateText)}, {"public", printable(row.publicText)}};
}

Json jsonOf(const AliasRule& rule) {
  const auto text = [](const std::string& value) { return value.empty() ? Json() : Json(value); };
  Json document{{"writers", textOf(rule.writers)}};
  document["listed"] = jsonOf(rule.listed);
  document["owners"] = jsonOf(rule.owners);
  document["expires"] = text(rule.expires ? timeText(*rule.expires) : "");
  document["note"] = text(rule.note);
  document["contact"] = text(rule.contact.address());
  return document;
}

std::string noAlias(const EmailAddress& alias, const Session& session) {
  return "no alias " + alias.address() + " in table " + aliasTableName(session.tableName());
}

Failure brokenRow(const AliasRow& row, const std::string& table) {
  return {ExitCode::BadData, "broken row '" + row.name + "' of table " + table, row.why,
          row.alias.isNull() ? "correct or delete the row with an SQL client, by its name"
                             : "set its members with 'alias set', or remove it with 'alias"
                               " remove'"};
}

Failure brokenRow(const MaskRow& row, const std::string& table) {
  return {ExitCode::BadData, "broken row " + textOf({row}) + " of table " + table, row.why,
          "correct or delete the row with an SQL client, by its private text"};
}

void warnOfBegin(HistoryReader& reader, const std::string& since) {
  const std::string begin = reader.begin();
  if (begin <= since) return;
  say("warning: the history begins at " + begin.substr(0, 19) +
      "; what changed before is not in it");
}

Failure brokenRule(const std::string& name) {
  return {ExitCode::BadData, "rule of " + name, "another program wrote it, and it cannot be read",
          "remove it with 'alias rule remove', and set it again"};
}

void nameTableFault(const Exception& exception, const Session& session, TableKind kind) {
  if (!isAddressFault(exception)) throw;
  const std::string why = reasonOf(exception);
  if (kind == TableKind::Alias) {
    if (s_reportUnreadable<AliasTable>(session, kind)) {
      throw Failure(ExitCode::BadData, "reading the alias table", why,
                    "the table has a row that is not a valid alias; 'tsl-address-map alias list'"
                    " names every such row");
    }
    throw Failure(ExitCode::BadData, "reading table mask, which is read as well", why,
                  "correct or delete the row with that text with an SQL client");
  }
  if (s_reportUnreadable<MaskTable>(session, kind)) {
    throw Failure(ExitCode::BadData, "reading the mask table", why,
                  "the table has a row that is not a valid pair; 'tsl-address-map mask list'"
                  " names every such row");
  }
  throw Failure(ExitCode::BadData, "reading table alias, which is read as well", why,
                "'tsl-address-map alias list' names every row that is not a valid alias");
}

}  // namespace Tessel::Tool
