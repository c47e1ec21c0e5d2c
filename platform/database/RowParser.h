// Takes the result of a query.
#ifndef TSL_DATABASE_ROWPARSER_H
#define TSL_DATABASE_ROWPARSER_H

#include "base/Export.h"

namespace Tessel::Database {

// What a `Query` hands its result to. The query's thread calls it.
class TSL_EXPORT RowParser {
 public:
  virtual ~RowParser();
  // Reads the rows of `result` with the functions of db_result.h. `connection` is the `Connection`
  // of the query. Both are valid during the call only; a statement on the same connection must not
  // be run meanwhile. What it throws leaves Query::execute(), and the connection stays usable.
  virtual void parse(void* connection, void* result) = 0;
};

// Base of the parsers that take every row of the result.
class TSL_EXPORT AllRowParser : public RowParser {
 public:
  ~AllRowParser() override;
};

}  // namespace Tessel::Database

#endif
