// Results as plain texts, for the statements that the tool runs itself.
#ifndef TSL_TOOLS_TABLES_TEXTROWS_H
#define TSL_TOOLS_TABLES_TEXTROWS_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "database/Connection.h"

namespace Tessel::Tool {

// The columns of one row; SQL NULL is an empty text.
using TextRow = std::vector<std::string>;

// Runs `statement` and returns the first `columns` columns of its rows. Throws Exception when the
// database cannot answer.
std::vector<TextRow> selectTexts(Database::Connection& connection, const std::string& statement,
                                 unsigned int columns);

// The rows of `statement`, each by the names of its columns. Throws Exception as above.
std::vector<std::map<std::string, std::string>> selectNamed(Database::Connection& connection,
                                                            const std::string& statement);

// Called with the progress of reading a result: before its first row, and after each step.
using CountRows = std::function<void(std::uint64_t read, std::uint64_t total)>;

// The first two columns of a row; valid during the call only.
using TakePair = std::function<void(std::string_view first, std::string_view second)>;

// Runs `statement` and calls `take` for each row, without copies of the rows. `take` must not run a
// statement on `connection`; its exceptions pass. `count`, if given, is called for each row. Throws
// Exception as above.
void selectPairs(Database::Connection& connection, const std::string& statement,
                 const TakePair& take, const CountRows& count = nullptr);

// Runs `statement`, which has no rows. Throws Exception as above.
void runStatement(Database::Connection& connection, const std::string& statement);

// Number of rows of the SQL table `table` of the selected database. Throws Exception as above.
std::uint64_t countRows(Database::Connection& connection, const std::string& table);

// `text`, which may hold anything, as a literal of SQL with its quotes.
std::string literal(std::string_view text);

}  // namespace Tessel::Tool

#endif
