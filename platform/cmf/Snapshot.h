// One committed state of the configuration, held for reading. Private to platform/cmf.
#ifndef TSL_CMF_SNAPSHOT_H
#define TSL_CMF_SNAPSHOT_H

#include <cstddef>
#include <memory>

#include <lmdb.h>

#include "cmf/Environment.h"

namespace Tessel::CMF {

// Owns a transaction that is to be given up.
struct AbortTransaction {
  void operator()(MDB_txn* transaction) const noexcept { mdb_txn_abort(transaction); }
};
using TransactionOwner = std::unique_ptr<MDB_txn, AbortTransaction>;

// Owns a cursor. It must be closed before its transaction ends.
struct CloseCursor {
  void operator()(MDB_cursor* cursor) const noexcept { mdb_cursor_close(cursor); }
};
using CursorOwner = std::unique_ptr<MDB_cursor, CloseCursor>;

// A read transaction. Whatever it gives out lies in the map and lives as long as it. One thread at
// a time; it may be handed from thread to thread. While it lives no space that it can see is used
// again, so it should not live long.
class Snapshot {
 public:
  // Holds the newest state of `environment`. Throws Exception, code 4, when it cannot be read,
  // holds nothing yet, or has a format that this program does not know.
  explicit Snapshot(std::shared_ptr<Environment> environment);
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // The state that the calling thread locked, when it is one of `environment`; a new one otherwise.
  // Throws as the constructor.
  static std::shared_ptr<Snapshot> of(const std::shared_ptr<Environment>& environment);
  // The state that the calling thread locked; otherwise a new one of the environment that
  // TSL_CMF_PATH names. Throws as the constructor and `Environment::forReading`.
  static std::shared_ptr<Snapshot> ofThisThread();

  // Makes the calling thread read one state, the newest one now, until it unlocks as often as it
  // locked. Throws as `ofThisThread`; nothing is locked then.
  static void lockThread();
  // Ends one `lockThread`; without one it does nothing.
  static void unlockThread() noexcept;

  [[nodiscard]] const Environment& environment() const noexcept { return *m_environment; }
  [[nodiscard]] MDB_txn* transaction() const noexcept { return m_transaction.get(); }
  // True in a forked child of the process that made it; it must not be read there.
  [[nodiscard]] bool isInherited() const noexcept { return m_environment->isInherited(); }

  // The record under `key`; null when there is none. Throws Exception, code 4.
  template <class Record>
  [[nodiscard]] const Record* get(const Key& key) const {
    return static_cast<const Record*>(m_environment->get(m_transaction.get(), key, sizeof(Record)));
  }

 private:
  std::shared_ptr<Environment> m_environment;
  TransactionOwner m_transaction;  // In a forked child the parent's, and never ended there.
};

// A cursor over all records in `transaction` of `environment`. Throws Exception, code 4.
CursorOwner openCursor(const Environment& environment, MDB_txn* transaction);

}  // namespace Tessel::CMF

#endif
