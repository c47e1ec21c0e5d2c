// Which rows are not as the history has them.
#include "check/HistoryCheck.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "tables/HistoryReader.h"
#include "tables/HistoryRows.h"

namespace Tessel::Tool {

namespace {

// What the history says that a table has.
struct Recorded {
  bool isWhole = false;  // The history begins with its creation.
  std::map<std::string, std::optional<std::string>> rows;
};

using RecordedTables = std::map<std::string, Recorded>;

// The numbers of changes that may not have been made.
std::set<std::uint64_t> s_notDone(HistoryReader& reader) {
  std::set<std::uint64_t> numbers;
  for (std::uint64_t last = 0;;) {
    const std::vector<ChangeRecord> records = reader.changes({}, last);
    if (records.empty()) return numbers;
    last = records.back().number;
    for (const ChangeRecord& record : records) {
      if (record.outcome != s_done) numbers.insert(record.number);
    }
  }
}

RecordedTables s_read(HistoryReader& reader) {
  const std::set<std::uint64_t> notDone = s_notDone(reader);
  RecordedTables tables;
  reader.forEachRow(0, std::numeric_limits<std::int64_t>::max(),
                    [&](std::uint64_t number, RowChange row) {
                      if (notDone.contains(number)) return;
                      Recorded& table = tables[row.table];
                      if (isRow(row)) {
                        table.rows[row.name] = std::move(row.after);
                      } else if (row.name.empty() && row.after == creationOf(row.table).after) {
                        table = {true, {}};
                      } else if (row.name.empty() && !row.after) {
                        table = {};
                      }
                    });
  return tables;
}

std::string s_state(const std::optional<std::string>& text) {
  constexpr std::size_t s_most = 200;
  if (!text) return "no such row";
  return "'" + text->substr(0, s_most) + (text->size() > s_most ? "...'" : "'");
}

// One table against the history.
class TableComparison {
 public:
  // What is given must outlive the object.
  TableComparison(std::string table, Recorded& recorded, Findings& findings)
      : m_table(std::move(table)), m_recorded(recorded), m_findings(findings) {}

  void meet(const std::string& name, const std::string& text) {
    const auto known = m_recorded.rows.find(name);
    if (known == m_recorded.rows.end()) {
      m_recorded.isWhole ? add(name, text, std::nullopt) : void(++m_unknown);
      return;
    }
    if (known->second != text) add(name, text, known->second);
    m_recorded.rows.erase(known);
  }

  void end() {
    for (const auto& [name, text] : m_recorded.rows) {
      if (text) add(name, std::nullopt, text);
    }
    if (m_unknown == 0) return;
    m_findings.add({Severity::Notice,
                    "not-in-history",
                    m_table,
                    "",
                    std::to_string(m_unknown) + " rows are not in the history, which begins later",
                    "",
                    {}});
  }

 private:
  void add(const std::string& name, const std::optional<std::string>& now,
           const std::optional<std::string>& recorded) {
    const std::string address = addressOf({m_table, name, {}, {}});
    m_findings.add({Severity::Warning,
                    "unrecorded-change",
                    m_table,
                    name,
                    "it was changed by another program: the table has " + s_state(now) +
                        ", the history " + s_state(recorded),
                    "tsl-address-map history " + shellWord(address),
                    {}});
  }

  std::string m_table;
  Recorded& m_recorded;
  Findings& m_findings;
  std::size_t m_unknown = 0;
};

}  // namespace

void checkHistory(Database::Connection& connection, const std::vector<std::string>& tables,
                  Findings& findings) {
  HistoryReader reader(connection);
  RecordedTables recorded = s_read(reader);
  for (const std::string& table : tables) {
    TableComparison comparison(table, recorded[table], findings);
    forEachRow(connection, table, [&](const std::string& name, const std::string& text) {
      comparison.meet(name, text);
    });
    comparison.end();
  }
}

}  // namespace Tessel::Tool
