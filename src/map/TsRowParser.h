// Turns a result into row objects of one type.
#ifndef TSL_MAP_TSROWPARSER_H
#define TSL_MAP_TSROWPARSER_H

#include <utility>

#include "TslRefcounted.h"
#include "database/RowContainer.h"
#include "database/RowImpl.h"
#include "database/RowParser.h"
#include "database/db_result.h"

namespace Tessel::Database {

// Parser that stores one `Row` for each row of a result in a container, in result order. A row that
// could not be parsed is stored as it was made. One thread at a time.
template <class Row>
class TsRowParser : public AllRowParser {
 public:
  // `rows` must outlive the parser.
  explicit TsRowParser(RowContainer& rows) : m_rows(&rows) {}

  void parse(void* connection, void* result) override {
    if (result == nullptr) return;
    const auto count = db_result_row_num(result);
    for (decltype(db_result_row_num(result)) i = 0; i < count; ++i) {
      auto* const parsed = new Row;
      Ref<RowImpl> reference(parsed);
      // Deliberate: the outcome is not looked at. A row with an empty column stays in the result
      // with a null address. Pinned by
      // AddressAliasDbMySQLOnServer.ARowWithAnEmptyColumnIsLoggedAndKept.
      static_cast<void>(parsed->parse(connection, result, db_result_fetch_row(result, i)));
      m_rows->add(std::move(reference));
    }
  }

 private:
  RowContainer* m_rows;
};

// Parser that hands each row to `Take` as soon as it is read and keeps none, for large results that
// nobody holds. What `take` throws ends the reading. One thread at a time.
template <class Row, class Take>
class TsRowStream : public AllRowParser {
 public:
  explicit TsRowStream(Take take) : m_take(std::move(take)) {}

  void parse(void* connection, void* result) override {
    if (result == nullptr) return;
    const auto count = db_result_row_num(result);
    for (decltype(db_result_row_num(result)) i = 0; i < count; ++i) {
      Row row;
      // As above, the outcome is not looked at.
      static_cast<void>(row.parse(connection, result, db_result_fetch_row(result, i)));
      m_take(row);
    }
  }

 private:
  Take m_take;
};

}  // namespace Tessel::Database

#endif
