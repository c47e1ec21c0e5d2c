// The rows of all tables as the history names them: aliases, masks and rules by a name and a text.
#ifndef TSL_TOOLS_TABLES_HISTORYROWS_H
#define TSL_TOOLS_TABLES_HISTORYROWS_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "database/Connection.h"
#include "tables/History.h"

namespace Tessel::Tool {

// Texts by their names, byte for byte.
using TextsByName = std::map<std::string, std::string>;

// True for what is a row of a table of aliases, masks or rules: others were no rows.
bool isRow(const RowChange& change);

// The address that the row is of; empty for none. A rule is named "SQLTABLE ADDRESS".
std::string addressOf(const RowChange& change);
// The table of aliases or masks that the row is in or about.
std::string tableOf(const RowChange& change);

// The rows of the SQL table `table` that have one of `names`, with `lock` locked until the end of
// the transaction. Throws Exception when the database cannot answer.
TextsByName readRows(Database::Connection& connection, const std::string& table,
                     const std::vector<std::string>& names, bool lock);
// All rows. Calls `take` for each.
void forEachRow(Database::Connection& connection, const std::string& table,
                const std::function<void(const std::string& name, const std::string& text)>& take);

// Makes rows of `table`, which are locked and are as they are before `changes`, what they are after
// them. Throws Exception, and Failure, `BadData`, when a row that is to come is in the way of
// another one.
void writeRows(Database::Connection& connection, const std::string& table,
               const std::vector<RowChange>& changes);

}  // namespace Tessel::Tool

#endif
