// Looking on while statements are sent to the server.
#include "database/StatementObserver.h"

#include <atomic>

namespace Tessel::Database {

namespace {

// A function needs no other memory to be seen with it, so relaxed order is enough.
std::atomic<StatementObserver> s_observer{nullptr};

}  // namespace

void setStatementObserver(StatementObserver observer) noexcept {
  s_observer.store(observer, std::memory_order_relaxed);
}

void tellStatement(std::string_view statement) noexcept {
  const StatementObserver observer = s_observer.load(std::memory_order_relaxed);
  if (observer != nullptr) observer(statement);
}

}  // namespace Tessel::Database
