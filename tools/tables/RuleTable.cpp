// The rules of the aliases of one table.
#include "tables/RuleTable.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "tables/AddressKey.h"
#include "tables/OwnTables.h"
#include "tables/RowReader.h"
#include "tables/SpellingSearch.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

constexpr unsigned int s_columns = 7;
constexpr char s_unreadable[] = "unreadable";

}  // namespace

std::string textOf(const RuleRow& row) {
  return "rule of " + row.name + ": " + (row.rule ? ruleText(*row.rule) : s_unreadable);
}

RuleTable::RuleTable(Database::Connection& connection, std::string table)
    : m_connection(connection),
      m_table(std::move(table)),
      m_spellings(connection, s_rules, "name") {}

std::string RuleTable::where(const std::string& name) const {
  return " where table_name=" + literal(m_table) + " and name=" + literal(name);
}

std::vector<RuleRow> RuleTable::select(const std::string& condition) try {
  std::vector<RuleRow> rows;
  const std::string statement =
      std::string("select name, ") + s_ruleColumns + " from " + s_rules + condition + ";";
  for (const TextRow& row : selectTexts(m_connection, statement, s_columns)) {
    rows.push_back({row[0], readRule(row, 1)});
  }
  return rows;
} catch (const Exception& exception) {
  if (!isDatabaseError(exception, s_noSuchTable)) throw;
  return {};
}

bool RuleTable::isThere() {
  return !selectTexts(m_connection, std::string("show tables like '") + s_rules + "';", 1).empty();
}

std::optional<RuleRow> RuleTable::look(const EmailAddress& alias) {
  const std::string key = comparisonKey(alias.address());
  const auto isOfAlias = [&key](const RuleRow& row) { return comparisonKey(row.name) == key; };
  // Most have the spelling that the server finds.
  for (RuleRow& row : select(where(alias.address()))) {
    if (isOfAlias(row)) return std::move(row);
  }
  if (alias.isNull()) return std::nullopt;
  for (const std::string& name : spellingsOf(alias)) {
    for (RuleRow& row : select(where(name))) {
      if (isOfAlias(row)) return std::move(row);
    }
  }
  return std::nullopt;
}

std::vector<std::string> RuleTable::spellingsOf(const EmailAddress& alias) try {
  return m_spellings.spellingsOf(alias.address());
} catch (const Exception& exception) {
  if (!isDatabaseError(exception, s_noSuchTable)) throw;
  return {};
}

std::vector<RuleRow> RuleTable::rows(const std::string& domain) {
  std::vector<RuleRow> rows = select(" where table_name=" + literal(m_table) + " order by name");
  const std::string key = comparisonDomain(domain);
  if (!key.empty()) {
    std::erase_if(rows, [&key](const RuleRow& row) { return !isOfDomain(row.name, key); });
  }
  return rows;
}

std::map<std::string, std::string> RuleTable::texts() {
  std::map<std::string, std::string> texts;
  for (const RuleRow& row : rows()) {
    texts.emplace(comparisonKey(row.name), row.rule ? ruleText(*row.rule) : s_unreadable);
  }
  return texts;
}

// The rule with the name `name` as the history has it.
std::optional<std::string> RuleTable::textLocked(const std::string& name) {
  const std::vector<RuleRow> rows = select(where(name) + " for update");
  if (rows.empty()) return std::nullopt;
  return rows.front().rule ? ruleText(*rows.front().rule) : s_unreadable;
}

void RuleTable::set(RecordedChange& change, const std::string& name, const AliasRule& rule) try {
  change.note({s_rules, m_table + " " + name, textLocked(name), ruleText(rule)});
  const std::string expires = rule.expires ? literal(timeText(*rule.expires)) : "null";
  std::string values;
  for (const std::string& text :
       {m_table, name, std::string(textOf(rule.writers)), joined(rule.listed), joined(rule.owners),
        rule.note, rule.contact.address()}) {
    values += literal(text) + ", ";
  }
  runStatement(
      m_connection,
      std::string("replace into ") + s_rules +
          "( table_name, name, writers, listed, owners, note, contact, expires ) values( " +
          values + expires + " );");
} catch (const Exception& exception) {
  if (!isDatabaseError(exception, s_noSuchTable)) throw;
  throw Failure(ExitCode::Configuration, "rules", "the database has no table for them",
                "run 'tsl-address-map init', which adds it");
}

bool RuleTable::remove(RecordedChange& change, const std::string& name) {
  const std::optional<std::string> text = textLocked(name);
  if (!text) return false;
  change.note({s_rules, m_table + " " + name, text, std::nullopt});
  runStatement(m_connection, std::string("delete from ") + s_rules + where(name) + ";");
  return true;
}

std::size_t RuleTable::removeAll(RecordedChange& change, const std::vector<std::string>& aliases) {
  std::unordered_set<std::string> keys;
  for (const std::string& alias : aliases) keys.insert(comparisonKey(alias));
  std::size_t count = 0;
  for (const RuleRow& row : keys.empty() ? std::vector<RuleRow>() : rows()) {
    if (keys.contains(comparisonKey(row.name)) && remove(change, row.name)) ++count;
  }
  return count;
}

}  // namespace Tessel::Tool
