// The rows of an alias table as the server has them.
#include "tables/AliasTable.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/Exception.h"
#include "base/stringCompareNoCase.h"
#include "database/Transaction.h"
#include "failure/Failure.h"
#include "tables/Retry.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// Addresses of one statement: some 20 kB.
constexpr std::size_t s_addressesPerStatement = 500;

AliasRow s_read(const TextRow& texts) {
  RowReader reader(TableKind::Alias);
  AliasRow row;
  row.name = texts[0];
  row.text = texts[1];
  row.fault = reader.read(row.name, row.text);
  if (row.fault != RowFault::None) row.why = reader.why();
  if (!reader.key().empty()) row.alias = reader.keyAddress();
  if (row.fault == RowFault::None) {
    const std::vector<EmailAddress> members = reader.valueAddresses();
    row.members = {members.begin(), members.end()};
  }
  return row;
}

}  // namespace

AliasTable::AliasTable(std::string table)
    : m_table(std::move(table)), m_connection(std::string(s_database)) {}

AliasLook AliasTable::look(const EmailAddress& address) {
  return look(address, "");
}

AliasLook AliasTable::lookLocked(const EmailAddress& address) {
  return look(address, " for update");
}

AliasLook AliasTable::look(const EmailAddress& address, const char* lock) {
  AliasLook look;
  const std::string statement = "select name, members from " + m_table + " where name='" +
                                emailAddressEscapedWrite(address) + "'" + lock + ";";
  for (const TextRow& texts : selectTexts(m_connection, statement, 2)) {
    look.row = s_read(texts);
    look.kind = AliasLook::Kind::Other;
    if (!look.row.alias.isNull() && look.row.alias == address) {
      look.kind = AliasLook::Kind::Present;
      break;
    }
  }
  return look;
}

std::map<EmailAddress, AliasRow> AliasTable::look(const std::set<EmailAddress>& addresses) {
  std::map<EmailAddress, AliasRow> found;
  for (auto next = addresses.begin(); next != addresses.end();) {
    std::string names;
    for (std::size_t i = 0; i < s_addressesPerStatement && next != addresses.end(); ++i, ++next) {
      names += (names.empty() ? "'" : ",'") + emailAddressEscapedWrite(*next) + "'";
    }
    const std::string statement =
        "select name, members from " + m_table + " where name in( " + names + " );";
    for (const TextRow& texts : selectTexts(m_connection, statement, 2)) {
      AliasRow row = s_read(texts);
      // The collation may find more than was asked for.
      const EmailAddress alias = row.alias;
      if (addresses.count(alias) != 0) found.emplace(alias, std::move(row));
    }
  }
  return found;
}

std::vector<AliasRow> AliasTable::rows(const std::string& domain) {
  return select(domain, ";");
}

std::vector<AliasRow> AliasTable::rowsLocked() {
  return select("", " for update;");
}

std::vector<AliasRow> AliasTable::select(const std::string& domain, const std::string& end) {
  std::string statement = "select name, members from " + m_table;
  if (!domain.empty()) statement += " where name like '%@" + domain + "'";
  std::vector<AliasRow> rows;
  for (const TextRow& texts : selectTexts(m_connection, statement + end, 2)) {
    AliasRow row = s_read(texts);
    // "_" in a pattern matches anything, and the collation may fold more than letter case.
    const bool wanted =
        domain.empty() || row.alias.isNull() || stringCompareNoCase(row.alias.domain(), domain, 0);
    if (wanted) rows.push_back(std::move(row));
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const AliasRow& a, const AliasRow& b) { return a.alias < b.alias; });
  return rows;
}

void AliasTable::set(const EmailAddress& alias, const std::set<EmailAddress>& members) {
  std::string text;
  for (const EmailAddress& member : members) {
    if (!text.empty()) text += ",";
    text += emailAddressEscapedWrite(member);
  }
  runStatement(m_connection, "insert into " + m_table + " ( name, members ) values( '" +
                                 emailAddressEscapedWrite(alias) + "','" + text +
                                 "' ) on duplicate key update members=values( members );");
}

void AliasTable::remove(const std::string& name) {
  runStatement(m_connection, "delete from " + m_table + " where name=" + literal(name) + ";");
}

void AliasTable::transact(const std::function<bool()>& edit) {
  retryDeadlocks([&] {
    Database::Transaction transaction(m_connection);
    if (edit()) transaction.commit();
  });
}

}  // namespace Tessel::Tool
