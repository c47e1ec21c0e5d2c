// Results as plain texts, for the statements that the tool runs itself.
#ifndef TSL_TOOLS_CLI_TEXTROWS_H
#define TSL_TOOLS_CLI_TEXTROWS_H

#include <string>
#include <vector>

#include "database/Connection.h"

namespace Tessel::Tool {

// The columns of one row; SQL NULL is an empty text.
using TextRow = std::vector<std::string>;

// Runs `statement` and returns the first `columns` columns of its rows. Throws Exception when the
// database cannot answer.
std::vector<TextRow> selectTexts(Database::Connection& connection, const std::string& statement,
                                 unsigned int columns);

// Runs `statement`, which has no rows. Throws Exception as above.
void runStatement(Database::Connection& connection, const std::string& statement);

}  // namespace Tessel::Tool

#endif
