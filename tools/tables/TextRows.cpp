// Results as plain texts.
#include "tables/TextRows.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "address/EmailAddressEscape.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

class TextParser : public Database::AllRowParser {
 public:
  // Takes the first `columns` columns, or all where that is 0.
  explicit TextParser(unsigned int columns) : m_columns(columns) {}

  void parse(void* connection, void* result) override {
    if (m_columns == 0) m_columns = db_result_column_num(result);
    for (unsigned int column = 0; column < m_columns; ++column) {
      m_names.emplace_back(db_result_column_name(result, column));
    }
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
  [[nodiscard]] const TextRow& names() const { return m_names; }

 private:
  unsigned int m_columns;
  TextRow m_names;
  std::vector<TextRow> m_rows;
};

class PairParser : public Database::AllRowParser {
 public:
  // What is given must outlive the parser; `count` may be empty.
  PairParser(const TakePair& take, const CountRows& count) : m_take(take), m_count(count) {}

  void parse(void* connection, void* result) override {
    const auto text = [&](void* row, unsigned int column) {
      return std::string_view(db_result_get_value(connection, result, row, column),
                              db_result_field_length(result, column));
    };
    const std::int64_t count = db_result_row_num(result);
    if (m_count) m_count(0, static_cast<std::uint64_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
      void* const row = db_result_fetch_row(result, i);
      m_take(text(row, 0), text(row, 1));
      if (m_count) m_count(static_cast<std::uint64_t>(i + 1), static_cast<std::uint64_t>(count));
    }
  }

 private:
  const TakePair& m_take;
  const CountRows& m_count;
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

std::vector<std::map<std::string, std::string>> selectNamed(Database::Connection& connection,
                                                            const std::string& statement) {
  TextParser parser(0);
  Database::Query query(connection, &parser, true);
  query << statement;
  query.execute();
  std::vector<std::map<std::string, std::string>> named;
  for (const TextRow& row : parser.take()) {
    auto& columns = named.emplace_back();
    for (std::size_t i = 0; i < row.size(); ++i) columns.emplace(parser.names()[i], row[i]);
  }
  return named;
}

void selectPairs(Database::Connection& connection, const std::string& statement,
                 const TakePair& take, const CountRows& count) {
  PairParser parser(take, count);
  Database::Query query(connection, &parser, true);
  query << statement;
  query.execute();
}

void runStatement(Database::Connection& connection, const std::string& statement) {
  Database::Query query(connection, nullptr, true);
  query << statement;
  query.execute();
}

std::uint64_t countRows(Database::Connection& connection, const std::string& table) {
  const auto rows = selectTexts(connection, "select count(*) from " + quotedName(table) + ";", 1);
  return std::strtoull(rows.at(0).at(0).c_str(), nullptr, 10);
}

std::string literal(std::string_view text) {
  return "'" + emailAddressEscape(std::string(text)) + "'";
}

}  // namespace Tessel::Tool
