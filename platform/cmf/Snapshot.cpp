// Snapshot: read transactions, and the one that a thread has locked.
#include "cmf/Snapshot.h"

#include <utility>

#include "cmf/Failure.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_place{"CMF::Snapshot", "Snapshot"};

// What `lockThread` locked in this thread.
struct ThreadLock {
  std::shared_ptr<Snapshot> snapshot;
  unsigned int depth = 0;
};

ThreadLock& s_threadLock() {
  thread_local ThreadLock t_lock;
  // A forked child starts without a lock: the state that its parent reads is not for it.
  if (t_lock.depth > 0 && t_lock.snapshot->isInherited()) t_lock = {};
  return t_lock;
}

}  // namespace

Snapshot::Snapshot(std::shared_ptr<Environment> environment)
    : m_environment(std::move(environment)) {
  MDB_env* const env = m_environment->handle();
  MDB_txn* transaction = nullptr;
  int result = mdb_txn_begin(env, nullptr, MDB_RDONLY, &transaction);
  if (result == MDB_READERS_FULL) {
    m_environment->clearDeadReaders();
    result = mdb_txn_begin(env, nullptr, MDB_RDONLY, &transaction);
  }
  if (result != 0) {
    failWith(s_place, "Cannot read the configuration", m_environment->path(), result);
  }
  m_transaction.reset(transaction);
  if (m_environment->meta(transaction) != nullptr) return;
  // The lock file counts more commits than the data has: that is an older copy.
  if (mdb_txn_id(transaction) > m_environment->lastTransaction()) {
    fail(s_place, m_environment->overwritten());
  }
  fail(s_place,
       "The configuration in " + m_environment->path() + " is empty: nothing was stored yet");
}

Snapshot::~Snapshot() {
  if (isInherited()) static_cast<void>(m_transaction.release());
}

std::shared_ptr<Snapshot> Snapshot::of(const std::shared_ptr<Environment>& environment) {
  const ThreadLock& lock = s_threadLock();
  if (lock.depth > 0 && &lock.snapshot->environment() == environment.get()) return lock.snapshot;
  return std::make_shared<Snapshot>(environment);
}

std::shared_ptr<Snapshot> Snapshot::ofThisThread() {
  const ThreadLock& lock = s_threadLock();
  if (lock.depth > 0) return lock.snapshot;
  return std::make_shared<Snapshot>(Environment::forReading(false));
}

void Snapshot::lockThread() {
  ThreadLock& lock = s_threadLock();
  if (lock.depth == 0) lock.snapshot = std::make_shared<Snapshot>(Environment::forReading(false));
  ++lock.depth;
}

void Snapshot::unlockThread() noexcept {
  ThreadLock& lock = s_threadLock();
  if (lock.depth == 0 || --lock.depth > 0) return;
  lock.snapshot.reset();
}

CursorOwner openCursor(const Environment& environment, MDB_txn* transaction) {
  MDB_cursor* cursor = nullptr;
  const int result = mdb_cursor_open(transaction, environment.records(), &cursor);
  if (result != 0) {
    failWith(s_place, "Cannot read the configuration", environment.path(), result);
  }
  return CursorOwner(cursor);
}

}  // namespace Tessel::CMF
