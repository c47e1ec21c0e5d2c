// The record of a change that no transaction covers.
#include "cli/Intent.h"

#include <string>
#include <string_view>
#include <utility>

#include "failure/Failure.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

ChangeSummary s_summaryOf(const std::vector<RowChange>& changes) {
  ChangeSummary summary;
  for (const RowChange& change : changes) summary.add(change);
  return summary;
}

}  // namespace

Intent::Intent(std::vector<RowChange> changes, Without without) : m_changes(std::move(changes)) {
  try {
    record(s_begun);
  } catch (const std::exception& exception) {
    const auto* const known = dynamic_cast<const Exception*>(&exception);
    // A host without the database has no history.
    if (known != nullptr && isDatabaseError(*known, s_unknownDatabase)) return;
    if (without == Without::Fail) throw;
    m_isUnrecorded = true;
    warn(exception);
  }
}

Intent::~Intent() {
  if (!m_isEnded) end(s_failed);
}

void Intent::record(std::string_view outcome) {
  if (m_changes.empty()) return;
  m_connection.emplace(std::string(s_database));
  RecordedChange change(*m_connection, outcome);
  for (const RowChange& row : m_changes) change.note(row);
  change.commit();
  m_number = change.number();
}

void Intent::done() noexcept {
  end(s_done);
}

void Intent::end(std::string_view outcome) noexcept {
  m_isEnded = true;
  try {
    if (m_number != 0) {
      setOutcome(*m_connection, m_number, outcome);
    } else if (!m_isUnrecorded && outcome == s_done) {
      return record(outcome);
    }
    if (m_number == 0 && !m_isUnrecorded) return;
    logChange(m_number, std::string(outcome), s_summaryOf(m_changes));
  } catch (const std::exception& exception) {
    warn(exception);
  }
}

void Intent::warn(const std::exception& exception) const noexcept {
  try {
    const std::string what = m_number == 0 ? "the change" : "that the change has ended";
    say("warning: " + what + " is not in the history: " + failureOf(exception, "").why());
  } catch (const std::exception&) {
    // A message must not end the work.
    return;
  }
}

}  // namespace Tessel::Tool
