// QueryTableNames: one "show tables".
#include "database/QueryTableNames.h"

#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"

namespace Tessel::Database {

namespace {

class NameParser : public AllRowParser {
 public:
  explicit NameParser(std::set<std::string>& names) : m_names(names) {}

  void parse(void* connection, void* result) override {
    const std::int64_t rows = db_result_row_num(result);
    for (std::int64_t i = 0; i < rows; ++i) {
      void* const row = db_result_fetch_row(result, i);
      m_names.insert(db_result_get_value(connection, result, row, 0));
    }
  }

 private:
  std::set<std::string>& m_names;
};

}  // namespace

QueryTableNames::QueryTableNames(Connection& connection) {
  NameParser parser(m_names);
  Query query(connection, &parser, true);
  query << "show tables";
  query.execute();
}

}  // namespace Tessel::Database
