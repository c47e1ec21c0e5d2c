// An address becomes another one, or goes, wherever the tables have it.
#include "tables/AddressMove.h"

#include <algorithm>
#include <map>
#include <utility>

#include "failure/Failure.h"
#include "tables/AddressKey.h"
#include "tables/AliasChange.h"
#include "tables/OwnTables.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

Failure s_double(const std::string& table, const std::string& address) {
  return {ExitCode::BadData, address, "table " + table + " would have it twice",
          "nothing was changed; remove one of the two rows first"};
}

// An address in a table, in any spelling.
std::string s_place(const std::string& table, const EmailAddress& address) {
  return table + " " + comparisonKey(address.address());
}

}  // namespace

AddressMove::AddressMove(Database::Connection& connection, const std::vector<std::string>& tables,
                         Becomes becomes)
    : m_connection(connection), m_tables(tables), m_becomes(std::move(becomes)) {}

bool AddressMove::Row::isChanged() const {
  return !after || after->key.address() != before.key.address() || after->value() != before.value();
}

void AddressMove::plan(bool toWrite) {
  m_rows.clear();
  m_rules.clear();
  m_gone.clear();
  m_emptied.clear();
  m_broken.clear();
  m_changes.clear();
  for (const std::string& table : m_tables) read(table, toWrite);
  moveRows();
  refuseDoubles();
  refuseLoops();
  moveRules();
  for (const Row& row : m_rows) note(row);
}

void AddressMove::read(const std::string& table, bool toWrite) {
  const bool isAlias = readTableName(table)->kind == TableKind::Alias;
  const TableFormat& format = isAlias ? TableFormat::alias() : TableFormat::mask();
  RowReader reader(format.kind);
  const std::string statement = std::string("select ") + format.key + ", " + format.value +
                                " from " + table + (toWrite ? " for update;" : ";");
  selectPairs(m_connection, statement, [&](std::string_view key, std::string_view value) {
    Row row{&table, &format, std::string(key), std::string(value), {}, {}};
    if (readEntry(reader, key, value, row.before)) {
      m_broken.push_back("row '" + row.key + "' of table " + table);
    } else {
      m_rows.push_back(std::move(row));
    }
  });
}

std::optional<EmailAddress> AddressMove::become(const std::string& table,
                                                const EmailAddress& address) const {
  if (m_gone.contains(s_place(table, address))) return std::nullopt;
  return m_becomes(address);
}

// What becomes of the row `entry`; without a key or a value it goes.
std::optional<TableEntry> AddressMove::become(const std::string& table,
                                              const TableEntry& entry) const {
  const std::optional<EmailAddress> key = become(table, entry.key);
  if (!key) return std::nullopt;
  std::set<EmailAddress> values;
  for (const EmailAddress& value : entry.values) {
    if (const auto now = become(table, value)) values.insert(*now);
  }
  if (values.empty()) return std::nullopt;
  return TableEntry{*key, {values.begin(), values.end()}};
}

void AddressMove::moveRows() {
  std::size_t gone = 0;
  do {
    gone = m_gone.size();
    for (Row& row : m_rows) {
      row.after = become(*row.table, row.before);
      const bool isEmptied = !row.after && !row.format->hasPublic && m_becomes(row.before.key);
      if (!isEmptied) continue;
      m_gone.insert(s_place(*row.table, row.before.key));
      m_emptied.insert(row.key);
    }
  } while (m_gone.size() != gone);
}

void AddressMove::moveRules() {
  for (const std::string& table : m_tables) {
    if (readTableName(table)->kind != TableKind::Alias) continue;
    for (RuleRow& row : RuleTable(m_connection, table).rows()) {
      if (!row.rule) continue;
      Rule moved{&table, row, row};
      for (auto member : {&AliasRule::listed, &AliasRule::owners}) {
        std::set<EmailAddress> now;
        for (const EmailAddress& one : (*row.rule).*member) {
          if (const auto other = become(table, one)) now.insert(*other);
        }
        (*moved.after->rule).*member = std::move(now);
      }
      if (!row.rule->contact.isNull()) {
        moved.after->rule->contact = become(table, row.rule->contact).value_or(EmailAddress());
      }
      if (!row.name.empty()) {
        const auto name = become(table, EmailAddress::rfc5321Parse(row.name, false));
        if (name) moved.after->name = name->address();
        if (!name) moved.after.reset();
      }
      const bool isSame = moved.after && moved.after->name == row.name &&
                          ruleText(*moved.after->rule) == ruleText(*row.rule);
      if (isSame) continue;
      const auto named = [&table](const std::string& name) {
        return std::string(table).append(" ").append(name);
      };
      const std::string before = ruleText(*row.rule);
      const std::string after = moved.after ? ruleText(*moved.after->rule) : "";
      if (moved.after && moved.after->name == row.name) {
        m_changes.push_back({s_rules, named(row.name), before, after});
      } else {
        m_changes.push_back({s_rules, named(row.name), before, std::nullopt});
        if (moved.after) {
          m_changes.push_back({s_rules, named(moved.after->name), std::nullopt, after});
        }
      }
      m_rules.push_back(std::move(moved));
    }
  }
}

// No two rows may have one address then, unless they do now.
void AddressMove::refuseDoubles() const {
  std::map<std::string, bool> seen;  // By table, side and key: true for a row that changes.
  const auto meet = [&seen](const Row& row, const char* side, const EmailAddress& address) {
    const std::string key = *row.table + " " + side + " " + comparisonKey(address.address());
    const auto [place, isNew] = seen.emplace(key, row.isChanged());
    if (!isNew && (place->second || row.isChanged())) throw s_double(*row.table, address.address());
  };
  for (const Row& row : m_rows) {
    if (!row.after) continue;
    meet(row, "key", row.after->key);
    if (row.format->hasPublic) meet(row, "public", row.after->values.front());
  }
}

// True when the aliases of `path` led to each other before, by the names that they had.
bool AddressMove::wasLoop(const std::vector<std::string>& path, const Places& places) {
  for (std::size_t i = 0; i + 1 < path.size(); ++i) {
    const Row& alias = *places.at(comparisonKey(path[i]));
    const Row& member = *places.at(comparisonKey(path[i + 1]));
    const std::string key = comparisonKey(member.before.key.address());
    const auto& members = alias.before.values;
    const bool wasMember = std::any_of(members.begin(), members.end(), [&](const auto& one) {
      return comparisonKey(one.address()) == key;
    });
    if (!wasMember) return false;
  }
  return true;
}

void AddressMove::refuseLoops() const {
  for (const std::string& table : m_tables) {
    AliasChange change;
    std::vector<const Row*> written;
    for (const Row& row : m_rows) {
      const bool isWritten = row.table == &table && row.isChanged() && row.after;
      if (!isWritten || row.format->hasPublic) continue;
      change.write(*row.after);
      written.push_back(&row);
    }
    if (written.empty()) continue;
    Places places;
    for (const Row& row : m_rows) {
      if (row.table != &table || !row.after) continue;
      if (!row.isChanged()) change.keep(row.key, row.value);
      places.emplace(comparisonKey(row.after->key.address()), &row);
    }
    for (const AliasLoop& loop : change.loops()) {
      if (wasLoop(loop.path, places)) continue;
      throw Failure(ExitCode::BadData, "table " + table,
                    "aliases would lead back to themselves: " + textOf(loop.path),
                    "nothing was changed; remove one of these members first");
    }
  }
}

void AddressMove::note(const Row& row) {
  if (!row.isChanged()) return;
  if (row.after && row.after->key.address() == row.before.key.address()) {
    m_changes.push_back({*row.table, row.key, row.value, row.after->value()});
    return;
  }
  m_changes.push_back({*row.table, row.key, row.value, std::nullopt});
  if (!row.after) return;
  m_changes.push_back({*row.table, row.after->key.address(), std::nullopt, row.after->value()});
}

void AddressMove::write(RecordedChange& change) {
  // Public addresses may be exchanged: what goes makes room first.
  for (const bool isRemoval : {true, false}) {
    for (const Row& row : m_rows) {
      if (!row.isChanged() || isRemoval != !row.after) continue;
      const std::string where =
          std::string(" where ") + row.format->key + "=" + literal(row.key) + ";";
      runStatement(m_connection, isRemoval ? "delete from " + *row.table + where
                                           : "update " + *row.table + " set " + row.format->key +
                                                 "=" + literal(row.after->key.address()) + ", " +
                                                 row.format->value + "=" +
                                                 literal(row.after->value()) + where);
    }
  }
  for (const Rule& rule : m_rules) {
    RuleTable rules(m_connection, *rule.table);
    rules.remove(change, rule.before.name);
    if (rule.after) rules.set(change, rule.after->name, *rule.after->rule);
  }
  for (const RowChange& row : m_changes) {
    if (row.table != s_rules) change.note(row);
  }
}

}  // namespace Tessel::Tool
