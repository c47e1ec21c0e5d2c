// The rows of an alias table as the server has them.
#include "tables/AliasTable.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/Retry.h"
#include "tables/TableNames.h"

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

std::vector<std::string> s_textsOf(const std::set<EmailAddress>& addresses) {
  std::vector<std::string> texts;
  texts.reserve(addresses.size());
  for (const EmailAddress& address : addresses) texts.push_back(address.address());
  return texts;
}

}  // namespace

AliasTable::AliasTable(std::string table)
    : m_table(std::move(table)),
      m_connection(std::string(s_database)),
      m_spellings(m_connection, m_table, "name"),
      m_rules(m_connection, m_table) {}

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
    look.isInTheWay = true;
    if (!look.row.alias.isNull() && look.row.alias == address) {
      look.kind = AliasLook::Kind::Present;
      return look;
    }
  }
  lookSpelled(address, lock, look);
  return look;
}

// Takes the row of another spelling of `address` into `look`, if there is one.
void AliasTable::lookSpelled(const EmailAddress& address, const char* lock, AliasLook& look) {
  for (const std::string& name : m_spellings.spellingsOf(address.address())) {
    const std::string statement =
        "select name, members from " + m_table + " where name=" + literal(name) + lock + ";";
    for (const TextRow& texts : selectTexts(m_connection, statement, 2)) {
      if (texts[0] != name) continue;
      look.isInTheWay = look.isInTheWay && look.row.name == name;
      look.row = s_read(texts);
      look.kind = AliasLook::Kind::Spelled;
      return;
    }
  }
}

std::map<EmailAddress, AliasRow> AliasTable::look(const std::set<EmailAddress>& addresses) {
  std::map<EmailAddress, AliasRow> found;
  for (AliasRow& row : rowsOf(s_textsOf(addresses))) {
    // The collation may find more than was asked for.
    const EmailAddress alias = row.alias;
    if (addresses.count(alias) != 0) found.emplace(alias, std::move(row));
  }
  return found;
}

std::map<EmailAddress, AliasRow> AliasTable::lookSpelled(const std::set<EmailAddress>& addresses) {
  std::map<EmailAddress, AliasRow> found = look(addresses);
  std::vector<std::string> missing;
  for (const EmailAddress& address : addresses) {
    if (found.count(address) == 0) missing.push_back(address.address());
  }
  std::multimap<std::string, std::string> asked;  // By the name of the row.
  std::vector<std::string> names;
  for (const auto& [text, name] : m_spellings.spellingsOf(missing)) {
    if (asked.count(name) == 0) names.push_back(name);
    asked.emplace(name, text);
  }
  for (const AliasRow& row : rowsOf(names)) {
    const auto [first, end] = asked.equal_range(row.name);
    for (auto text = first; text != end; ++text) {
      found.emplace(EmailAddress::rfc5321Parse(text->second, true), row);
    }
  }
  return found;
}

std::multimap<std::string, std::string> AliasTable::spellingsOf(
    const std::set<EmailAddress>& addresses) {
  return m_spellings.spellingsOf(s_textsOf(addresses));
}

// The rows whose names the server considers equal to one of `names`.
std::vector<AliasRow> AliasTable::rowsOf(const std::vector<std::string>& names) {
  std::vector<AliasRow> rows;
  for (std::size_t next = 0; next < names.size();) {
    std::string list;
    for (std::size_t i = 0; i < s_addressesPerStatement && next < names.size(); ++i, ++next) {
      list += (list.empty() ? "" : ",") + literal(names[next]);
    }
    const std::string statement =
        "select name, members from " + m_table + " where name in( " + list + " );";
    for (const TextRow& texts : selectTexts(m_connection, statement, 2)) {
      rows.push_back(s_read(texts));
    }
  }
  return rows;
}

std::vector<AliasRow> AliasTable::rows(const std::string& domain) {
  return select(domain, ";");
}

void AliasTable::forEachRow(const TakePair& take) {
  selectPairs(m_connection, "select name, members from " + m_table + ";", take);
}

std::vector<AliasRow> AliasTable::rowsLocked() {
  return select("", " for update;");
}

std::vector<AliasRow> AliasTable::select(const std::string& domain, const std::string& end) {
  std::string statement = "select name, members from " + m_table;
  if (!domain.empty()) statement += " where " + domainCondition("name", domain);
  const std::string key = comparisonDomain(domain);
  std::vector<AliasRow> rows;
  for (const TextRow& texts : selectTexts(m_connection, statement + end, 2)) {
    AliasRow row = s_read(texts);
    if (isOfDomain(row.name, key)) rows.push_back(std::move(row));
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const AliasRow& a, const AliasRow& b) { return a.alias < b.alias; });
  return rows;
}

// The row that the server takes for `name`, locked.
std::vector<TextRow> AliasTable::lockedRow(const std::string& name) {
  return selectTexts(
      m_connection,
      "select name, members from " + m_table + " where name=" + literal(name) + " for update;", 2);
}

void AliasTable::set(const EmailAddress& alias, const std::set<EmailAddress>& members) {
  std::string text;
  for (const EmailAddress& member : members) {
    if (!text.empty()) text += ",";
    text += emailAddressEscapedWrite(member);
  }
  RowChange row{m_table, alias.address(), std::nullopt, joined(members)};
  for (const TextRow& present : lockedRow(row.name)) {
    row.name = present[0];
    row.before = present[1];
  }
  runStatement(m_connection, "insert into " + m_table + " ( name, members ) values( '" +
                                 emailAddressEscapedWrite(alias) + "','" + text +
                                 "' ) on duplicate key update members=values( members );");
  m_change->note(std::move(row));
}

bool AliasTable::remove(const std::string& name) {
  for (const TextRow& row : lockedRow(name)) {
    m_change->note({m_table, row[0], row[1], std::nullopt});
  }
  runStatement(m_connection, "delete from " + m_table + " where name=" + literal(name) + ";");
  RowReader reader(TableKind::Alias);
  if (reader.readKey(name) != RowFault::None) return false;
  const std::optional<RuleRow> rule = m_rules.look(reader.keyAddress());
  return rule && m_rules.remove(*m_change, rule->name);
}

void AliasTable::transact(const std::function<bool()>& edit) {
  retryLost([&] {
    RecordedChange change(m_connection);
    m_change = &change;
    if (edit()) change.commit();
  });
  m_change = nullptr;
}

}  // namespace Tessel::Tool
