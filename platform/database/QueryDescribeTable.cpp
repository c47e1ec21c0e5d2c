// QueryDescribeTable: one "describe".
#include "database/QueryDescribeTable.h"

#include "database/Query.h"
#include "database/RowParser.h"
#include "database/Statement.h"
#include "database/db_result.h"

namespace Tessel::Database {

namespace {

// Columns of the server's answer.
enum Column : unsigned int { Name, Type, Null, Key, Default, Extra };

class FieldParser : public AllRowParser {
 public:
  explicit FieldParser(std::list<Field>& fields) : m_fields(fields) {}

  void parse(void* connection, void* result) override {
    const std::int64_t rows = db_result_row_num(result);
    for (std::int64_t i = 0; i < rows; ++i) {
      void* const row = db_result_fetch_row(result, i);
      const auto value = [&](Column column) {
        return std::string(db_result_get_value(connection, result, row, column));
      };
      m_fields.push_back({value(Name), value(Type), value(Null) == "YES", value(Key),
                          value(Default), value(Extra)});
    }
  }

 private:
  std::list<Field>& m_fields;
};

}  // namespace

QueryDescribeTable::QueryDescribeTable(Connection& connection, const std::string& table) {
  FieldParser parser(m_fields);
  Query query(connection, &parser, true);
  query << "describe " << quotedName(table);
  query.execute();
}

}  // namespace Tessel::Database
