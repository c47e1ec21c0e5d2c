// Results as plain texts.
#include "tables/TextRows.h"

#include <cstdint>
#include <utility>

#include "address/EmailAddressEscape.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"

namespace Tessel::Tool {

namespace {

class TextParser : public Database::AllRowParser {
 public:
  explicit TextParser(unsigned int columns) : m_columns(columns) {}

  void parse(void* connection, void* result) override {
    const std::int64_t count = db_result_row_num(result);
    for (std::int64_t i = 0; i < count; ++i) {
      void* const row = db_result_fetch_row(result, i);
      TextRow texts;
      for (unsigned int column = 0; column < m_columns; ++column) {
        texts.emplace_back(db_result_get_value(connection, result, row, column),
                           db_result_field_length(result, column));
      }
      m_rows.push_back(std::move(texts));
    }
  }

  std::vector<TextRow> take() { return std::move(m_rows); }

 private:
  unsigned int m_columns;
  std::vector<TextRow> m_rows;
};

class PairParser : public Database::AllRowParser {
 public:
  // What is given must outlive the parser; `progress` may be null.
  PairParser(const TakePair& take, Progress* progress) : m_take(take), m_progress(progress) {}

  void parse(void* connection, void* result) override {
    const auto text = [&](void* row, unsigned int column) {
      return std::string_view(db_result_get_value(connection, result, row, column),
                              db_result_field_length(result, column));
    };
    const std::int64_t count = db_result_row_num(result);
    if (m_progress != nullptr) m_progress->setTotal(static_cast<std::uint64_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
      void* const row = db_result_fetch_row(result, i);
      m_take(text(row, 0), text(row, 1));
      if (m_progress != nullptr) m_progress->add(1);
    }
  }

 private:
  const TakePair& m_take;
  Progress* m_progress;
};

}  // namespace

std::vector<TextRow> selectTexts(Database::Connection& connection, const std::string& statement,
                                 unsigned int columns) {
  TextParser parser(columns);
  Database::Query query(connection, &parser, true);
  query << statement;
  query.execute();
  return parser.take();
}

void selectPairs(Database::Connection& connection, const std::string& statement,
                 const TakePair& take, Progress* progress) {
  PairParser parser(take, progress);
  Database::Query query(connection, &parser, true);
  query << statement;
  query.execute();
}

void runStatement(Database::Connection& connection, const std::string& statement) {
  Database::Query query(connection, nullptr, true);
  query << statement;
  query.execute();
}

std::string literal(std::string_view text) {
  return "'" + emailAddressEscape(std::string(text)) + "'";
}

}  // namespace Tessel::Tool
