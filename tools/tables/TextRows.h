// Results as plain texts, for the statements that the tool runs itself.
#ifndef TSL_TOOLS_TABLES_TEXTROWS_H
#define TSL_TOOLS_TABLES_TEXTROWS_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

// The columns of one row; SQL NULL is an empty text.
using TextRow = std::vector<std::string>;

// Runs `statement` and returns the first `columns` columns of its rows. Throws Exception when the
// database cannot answer.
std::vector<TextRow> selectTexts(Database::Connection& connection, const std::string& statement,
                                 unsigned int columns);

// The first two columns of a row; valid during the call only.
using TakePair = std::function<void(std::string_view first, std::string_view second)>;

// Runs `statement` and calls `take` for each row, without copies of the rows. `take` must run no
// statement on `connection`; what it throws passes. `progress`, where it is given, is told how many
// rows there are and counts them. Throws Exception as above.
void selectPairs(Database::Connection& connection, const std::string& statement,
                 const TakePair& take, Progress* progress = nullptr);

// Runs `statement`, which has no rows. Throws Exception as above.
void runStatement(Database::Connection& connection, const std::string& statement);

// `text`, which may hold anything, as a literal of SQL with its quotes.
std::string literal(std::string_view text);

}  // namespace Tessel::Tool

#endif
