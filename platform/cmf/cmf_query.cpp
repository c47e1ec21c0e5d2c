// Queries over the tables of a domain: a cursor on a snapshot, behind C functions.
#include "cmf/cmf_query.h"

#include <array>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "base/Exception.h"
#include "cmf/Failure.h"
#include "cmf/Snapshot.h"

// The query's type is named by its C header, so it lies outside our namespaces.
using namespace Tessel::CMF;  // NOLINT(google-build-using-namespace): see above

namespace {

constexpr Place s_place{"CMF::TableQuery", "cmf_query"};

// Bytes of an error text that are kept; longer ones are cut.
constexpr std::size_t s_maxError = 1024;

// Not a std::string: noting a failure must not fail.
thread_local std::array<char, s_maxError> t_error{};

void s_noteError(std::string_view text) noexcept {
  const std::size_t length = text.copy(t_error.data(), s_maxError - 1);
  t_error[length] = '\0';
}

// Runs `call`; when it throws, notes why and returns `failed`.
template <class Result, class Call>
Result s_guarded(Result failed, Call call) noexcept {
  try {
    return call();
  } catch (const Tessel::Exception& e) {
    s_noteError(e.stringParameter());
  } catch (const std::exception& e) {
    s_noteError(e.what());
  }
  return failed;
}

cmf_query& s_checked(cmf_query* query) {
  if (query == nullptr) fail(s_place, "No query was given");
  return *query;
}

}  // namespace

// The rows of one table in one snapshot. Positions count the rows from 0; position -1 is the
// table's own record, which comes right before row 0.
struct cmf_query {
  // Throws Exception, code 4, when there is no such table or it cannot be read.
  cmf_query(std::uint32_t domainId, std::uint32_t tableId);

  // Throws Exception, code 4, when the query is the parent's or `slot` is none.
  void check(std::int32_t slot) const {
    if (slot != CMF_QUERY_SLOT || m_snapshot->isInherited()) failUse(slot);
  }
  [[nodiscard]] std::int32_t size() const;
  [[nodiscard]] std::size_t recordSize() const noexcept { return m_recordSize; }
  void select(std::int32_t index);
  const void* update();

 private:
  static constexpr std::int64_t s_tablePosition = -1;
  static constexpr std::int64_t s_nowhere = -2;

  void moveTo(std::int64_t target);
  std::int64_t startNear(std::int64_t target);
  void step(MDB_cursor_op operation);
  void checkRow() const;
  [[noreturn]] void failUse(std::int32_t slot) const;
  [[noreturn]] void failMalformed() const;

  // The cursor is closed before the snapshot ends: members go in reverse order.
  std::shared_ptr<Snapshot> m_snapshot;
  CursorOwner m_cursor;
  const Key m_table;
  const Key m_end;  // Behind every row of the table: no row has so long a name.
  const bool m_hasUsers;
  std::int64_t m_count = 0;  // As stored; `size` checks it.
  std::size_t m_recordSize = 0;
  std::int64_t m_selected = s_nowhere;
  std::int64_t m_position = s_nowhere;  // Where the cursor is.
  MDB_val m_foundKey{};                 // What the cursor found there.
  MDB_val m_row{};
};

cmf_query::cmf_query(std::uint32_t domainId, std::uint32_t tableId)
    : m_snapshot(Snapshot::ofThisThread()),
      m_cursor(openCursor(m_snapshot->environment(), m_snapshot->transaction())),
      m_table(domainId, tableId),
      m_end(domainId, tableId, std::string(s_maxDomain, '\xff')),
      m_hasUsers(tableId == s_mailUserTable) {
  check(CMF_QUERY_SLOT);
  const auto* table = domainId == s_commonGroup ? nullptr : m_snapshot->get<TableRecord>(m_table);
  // Deliberate: a failure, not an empty table. Identifiers come from domains that were just found,
  // so the domain was removed meanwhile, and "no users" would lose mail.
  if (table == nullptr) {
    fail(s_place, "There is no table " + std::to_string(tableId) + " of a domain with identifier " +
                      std::to_string(domainId) + " in " + m_snapshot->environment().path());
  }
  m_count = table->count;
  m_recordSize = table->recordSize;
  if (m_recordSize == 0 || m_recordSize % s_unit != 0) failMalformed();
}

void cmf_query::failUse(std::int32_t slot) const {
  if (m_snapshot->isInherited()) fail(s_place, "The query belongs to the process before the fork");
  fail(s_place, "A query has no slot " + std::to_string(slot));
}

std::int32_t cmf_query::size() const {
  if (m_count < 0 || m_count > std::numeric_limits<std::int32_t>::max()) failMalformed();
  return static_cast<std::int32_t>(m_count);
}

void cmf_query::select(std::int32_t index) {
  if (index < 0 || index >= size()) {
    fail(s_place, "There is no row " + std::to_string(index) + " in a table of " +
                      std::to_string(m_count) + " rows");
  }
  m_selected = index;
}

const void* cmf_query::update() {
  if (m_selected < 0) fail(s_place, "No row of the query is selected");
  if (m_position != m_selected) moveTo(m_selected);
  return m_row.mv_data;
}

void cmf_query::moveTo(std::int64_t target) {
  // The usual step, to the next row, needs no decision.
  std::int64_t position = target == m_position + 1 ? m_position : startNear(target);
  // Should a step fail, the cursor is anywhere.
  m_position = s_nowhere;
  for (; position < target; ++position) step(MDB_NEXT);
  for (; position > target; --position) step(MDB_PREV);
  checkRow();
  m_position = target;
}

// Puts the cursor to the table's record or behind its last row, unless it is nearer to `target`
// where it is, and returns its position. `s_nowhere` is farther from every row than the table's
// record is, so a cursor there is always put.
std::int64_t cmf_query::startNear(std::int64_t target) {
  const std::int64_t fromHere = std::abs(target - m_position);
  if (fromHere <= target + 1 && fromHere <= m_count - target) return m_position;
  m_position = s_nowhere;
  if (target + 1 <= m_count - target) {
    m_foundKey = {m_table.size(), const_cast<char*>(m_table.data())};
    step(MDB_SET);
    return s_tablePosition;
  }
  m_foundKey = {m_end.size(), const_cast<char*>(m_end.data())};
  const int result = mdb_cursor_get(m_cursor.get(), &m_foundKey, &m_row, MDB_SET_RANGE);
  if (result == 0) return m_count;
  if (result != MDB_NOTFOUND) {
    failWith(s_place, "Cannot read the configuration", m_snapshot->environment().path(), result);
  }
  step(MDB_LAST);
  return m_count - 1;
}

void cmf_query::step(MDB_cursor_op operation) {
  const int result = mdb_cursor_get(m_cursor.get(), &m_foundKey, &m_row, operation);
  if (result == MDB_NOTFOUND) failMalformed();
  if (result != 0) {
    failWith(s_place, "Cannot read the configuration", m_snapshot->environment().path(), result);
  }
}

void cmf_query::checkRow() const {
  if (!m_table.sameTable(m_foundKey.mv_data, m_foundKey.mv_size)) failMalformed();
  if (!isRecord(m_row, m_recordSize)) failMalformed();
  if (!m_hasUsers) return;
  // The name is read up to its NUL, so a damaged record must not be without one.
  if (m_recordSize != sizeof(__aps_mail_user)) failMalformed();
  const auto* user = static_cast<const __aps_mail_user*>(m_row.mv_data);
  if (user->user_name[s_userNameRoom - 1] != '\0') failMalformed();
}

void cmf_query::failMalformed() const {
  fail(s_place,
       "The configuration in " + m_snapshot->environment().path() + " holds a malformed table");
}

extern "C" {

cmf_query* cmf_query_create_withdomain(uint32_t domain_id, uint32_t table_id) {
  cmf_query* const failed = nullptr;
  return s_guarded(failed, [&] { return new cmf_query(domain_id, table_id); });
}

void cmf_query_free(cmf_query* query) {
  delete query;
}

int32_t cmf_query_do_table_size(cmf_query* query, int32_t slot) {
  return s_guarded(-1, [&] {
    s_checked(query).check(slot);
    return query->size();
  });
}

size_t cmf_query_record_size(cmf_query* query) {
  return s_guarded(std::size_t{0}, [&] { return s_checked(query).recordSize(); });
}

int32_t cmf_set_query_cache_st(cmf_query* query, int32_t slot, int32_t index) {
  return s_guarded(-1, [&] {
    s_checked(query).check(slot);
    query->select(index);
    return 0;
  });
}

const void* cmf_query_update(cmf_query* query) {
  const void* const failed = nullptr;
  return s_guarded(failed, [&] {
    s_checked(query).check(CMF_QUERY_SLOT);
    return query->update();
  });
}

int32_t cmf_shm_read_lock() {
  return s_guarded(-1, [] {
    Snapshot::lockThread();
    return 0;
  });
}

void cmf_shm_read_unlock() {
  Snapshot::unlockThread();
}

const char* cmf_query_error() {
  return t_error.data();
}

}  // extern "C"
