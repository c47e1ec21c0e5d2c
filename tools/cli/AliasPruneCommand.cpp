// The command `alias prune`: takes out the aliases that have expired.
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "tables/AddressKey.h"
#include "tables/AliasTable.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct PruneArguments {
  bool dryRun = false;
};

// A row that loses members; it is removed when nothing is left of them.
struct Cut {
  const AliasRow* row;
  std::set<EmailAddress> left;

  [[nodiscard]] std::string line() const {
    if (left.empty()) return "- " + row->name + ":" + row->text;
    return "~ " + row->name + ":" + row->text + " -> " + joined(left);
  }
};

// The aliases that go, and those that lose members: an address that is no alias any more would get
// mail itself. An alias of which nothing is left goes, too.
class Pruning {
 public:
  Pruning(const std::vector<AliasRow>& rows, const std::vector<RuleRow>& rules,
          std::chrono::sys_seconds now) {
    for (const RuleRow& row : rules) {
      const bool isOver = row.rule && row.rule->expires && *row.rule->expires <= now;
      if (isOver && !row.name.empty()) m_gone.insert(comparisonKey(row.name));
    }
    std::size_t before = 0;
    do {
      before = m_gone.size();
      m_cuts.clear();
      for (const AliasRow& row : rows) take(row);
    } while (m_gone.size() != before);
  }

  [[nodiscard]] const std::vector<Cut>& cuts() const { return m_cuts; }

 private:
  void take(const AliasRow& row) {
    const std::string key = comparisonKey(row.name);
    if (m_gone.contains(key)) return m_cuts.push_back({&row, {}});
    if (row.fault != RowFault::None) return;
    std::set<EmailAddress> left;
    for (const EmailAddress& member : row.members) {
      if (!m_gone.contains(comparisonKey(member.address()))) left.insert(member);
    }
    if (left.size() == row.members.size()) return;
    if (left.empty()) m_gone.insert(key);
    m_cuts.push_back({&row, std::move(left)});
  }

  std::unordered_set<std::string> m_gone;  // The keys of the aliases that go.
  std::vector<Cut> m_cuts;
};

void s_write(AliasTable& table, const Cut& cut) {
  if (cut.left.empty()) {
    table.remove(cut.row->name);
  } else {
    table.set(cut.row->alias, cut.left);
  }
}

ExitCode s_prune(Session& session, const PruneArguments& arguments) {
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  std::vector<std::string> lines;
  table.transact([&] {
    lines.clear();
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    const std::vector<AliasRow> rows = arguments.dryRun ? table.rows("") : table.rowsLocked();
    const Pruning pruning(rows, table.rules().rows(), now);
    for (const Cut& cut : pruning.cuts()) {
      lines.push_back(cut.line());
      if (!arguments.dryRun) s_write(table, cut);
    }
    return !arguments.dryRun && !lines.empty();
  });
  if (!session.isJson()) {
    for (const std::string& line : lines) session.output().line(printable(line));
  }
  Json changes = Json::array();
  for (const std::string& line : lines) changes.push_back(printable(line));
  answerChange(session, Json{{"changes", changes}}, "", arguments.dryRun);
  return ExitCode::Done;
}

}  // namespace

void addAliasPruneCommand(Command& alias) {
  const auto arguments = std::make_shared<PruneArguments>();
  Command prune = alias.command(
      "prune", "Remove the aliases that have expired, with their rules",
      "  tsl-address-map alias prune --dry-run\n"
      "Other aliases lose them as members, and one that has no other member goes, too. Prints what"
      " was removed (-) or\nchanged (~); with --json {\"changes\"}. The lookup service leaves"
      " expired aliases out at once; the library does\nnot know of it, and answers with them until"
      " they are removed.\n",
      Preparation::Database, withArguments(s_prune, arguments));
  addDryRun(prune, arguments->dryRun);
}

}  // namespace Tessel::Tool
