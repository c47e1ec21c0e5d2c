// Transaction: ties the start and the end of a transaction to the connection's rules for sending.
#include "database/Transaction.h"

#include <mysqld_error.h>

#include "base/sourceLine.h"
#include "database/ConnectionImpl.h"
#include "database/Error.h"

namespace Tessel::Database {

Transaction::Transaction(Connection& connection) : m_connection(connection) {
  Connection::Impl& impl = *connection.m_impl;
  // The server would commit the outer transaction without a word.
  if (impl.isGuarded() || impl.inTransaction()) {
    throw Error("Database::Transaction", "Transaction", sourceLine(),
                {ER_CANT_CHANGE_TX_CHARACTERISTICS,
                 "25001",
                 "A transaction is open on this connection already",
                 {},
                 false});
  }
  impl.execute("start transaction", nullptr, &connection, true, "Database::Transaction");
  impl.setGuarded(true);
  m_open = true;
}

Transaction::~Transaction() {
  if (!m_open) return;
  m_connection.m_impl->setGuarded(false);
  m_connection.m_impl->drop();
}

void Transaction::commit() {
  Connection::Impl& impl = *m_connection.m_impl;
  if (!m_open) {
    throw Error("Database::Transaction::commit", "Transaction", sourceLine(),
                {ER_SP_DOES_NOT_EXIST, "42000", "The transaction is over already", {}, false});
  }
  impl.execute("commit", nullptr, &m_connection, false, "Database::Transaction::commit");
  impl.setGuarded(false);
  m_open = false;
}

void Transaction::rollback() noexcept {
  if (!m_open) return;
  m_open = false;
  Connection::Impl& impl = *m_connection.m_impl;
  impl.setGuarded(false);
  if (!impl.inTransaction()) return;
  try {
    impl.execute("rollback", nullptr, &m_connection, false, "Database::Transaction::rollback");
  } catch (const std::exception&) {
    impl.drop();
  }
}

}  // namespace Tessel::Database
