// Looking on while statements are sent to the server.
#ifndef TSL_DATABASE_STATEMENTOBSERVER_H
#define TSL_DATABASE_STATEMENTOBSERVER_H

#include <string_view>

#include "base/Export.h"

namespace Tessel::Database {

// Is given the text of a statement, which is valid during the call only. May be called by several
// threads at once, and must not use a connection to the database.
using StatementObserver = void (*)(std::string_view statement) noexcept;

// Has `observer` called right before each statement of this process is sent, on any connection, by
// the thread that sends it. Null, as it is at the start, means no observer. A statement that is
// sent twice is reported twice. The set-up of a session is reported too. The log-in, and what an
// init-command of the option file sends, are not reported, so the observer never sees a password of
// ours. Statements that other threads are sending at this moment may still go to the previous
// observer. Without an observer a statement costs one atomic load more. Any thread.
TSL_EXPORT void setStatementObserver(StatementObserver observer) noexcept;

// Reports to the observer, if there is one, that `statement` is about to be sent. For this
// directory. Any thread.
void tellStatement(std::string_view statement) noexcept;

}  // namespace Tessel::Database

#endif
