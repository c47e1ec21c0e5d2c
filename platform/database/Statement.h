// What the text of a statement reveals: whether sending it twice changes nothing, and how
// to show it in an error. Private to this directory.
#ifndef TSL_DATABASE_STATEMENT_H
#define TSL_DATABASE_STATEMENT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Tessel::Database {

// True when carrying out `text` twice in a row leaves the same data and gives the same answer as
// once, where the first time may have been on another connection, judged by its words alone.
// Anything not known to be harmless is false. The judgement takes the tables for granted: an insert
// counts as harmless because of its "on duplicate key update", which holds only where a key covers
// the row. Functions that a select calls are not looked at. Any thread.
bool isRepeatable(std::string_view text);

// True when `text` is a statement that reads, or starts a transaction. Anything not known to be one
// is false; functions that a select calls are not looked at. Any thread.
bool onlyReads(std::string_view text);

// True when `text` is a statement that reads or changes rows without ending the open transaction,
// so that a lost connection undoes it with the rest. Anything not known to be one is false. Any
// thread.
bool staysInTransaction(std::string_view text);

// `text` fit for a message: string literals over 40 bytes are cut to their beginning with their
// length added, and the whole is cut at 500 bytes. Any thread.
std::string shortenedStatement(std::string_view text);

// `text`, or its first `limit` bytes and "..." when it is longer; never cuts inside a UTF-8
// character. Any thread.
std::string cutText(std::string_view text, std::size_t limit);

// `name` between backquotes, those inside it doubled. Any thread.
std::string quotedName(std::string_view name);

}  // namespace Tessel::Database

#endif
