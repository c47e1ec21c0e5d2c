// A transaction as a scope.
#ifndef TSL_DATABASE_TRANSACTION_H
#define TSL_DATABASE_TRANSACTION_H

#include "base/Export.h"
#include "database/Connection.h"

namespace Tessel::Database {

// Statements on the connection between construction and commit() take effect all or not at all. If
// the connection is lost meanwhile, or the server ends the transaction (a deadlock, a statement
// that commits by itself), every further statement and commit() fail until this object is gone:
// none is carried out on its own, none is sent twice. One thread at a time, together with the
// connection.
class TSL_EXPORT Transaction {
 public:
  // Starts a transaction on `connection`, which must outlive it. Throws Error, also when a
  // transaction is open on it already (number 1568).
  explicit Transaction(Connection& connection);
  // Undoes what was not committed, by closing the connection: sends nothing and waits for nothing.
  // The next statement opens it again. Never throws.
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Makes everything take effect; the transaction is over. Throws Error: where outcomeUnknown() is
  // true it may have taken effect, otherwise it has not. Further calls throw number 1305.
  void commit();
  // Undoes everything; the transaction is over. Does nothing when it is over already. Never throws:
  // if the server cannot be reached, the connection is closed, which has the same effect.
  void rollback() noexcept;

 private:
  Connection& m_connection;
  bool m_open = false;
};

}  // namespace Tessel::Database

#endif
