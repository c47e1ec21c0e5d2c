// The rows of the row target: how they are read off an input, and that a stored result made by hand
// is one that the client library makes of the same cells.
#include "fuzz/RowInput.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "database/Connection.h"
#include "database/Query.h"
#include "database/RowParser.h"
#include "database/db_result.h"
#include "support/TestServer.h"

namespace Tessel::Fuzz {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A cell as row parsers see it: its bytes with the NUL behind them, by its length.
using Seen = std::vector<std::vector<std::string>>;

Seen s_seen(void* result) {
  Seen rows;
  for (std::int64_t i = 0; i < db_result_row_num(result); ++i) {
    void* const row = db_result_fetch_row(result, i);
    rows.emplace_back();
    for (unsigned int column = 0; column < db_result_column_num(result); ++column) {
      const char* const value = db_result_get_value(nullptr, result, row, column);
      rows.back().emplace_back(value, db_result_field_length(result, column) + 1);
    }
  }
  return rows;
}

class SeenParser : public Database::AllRowParser {
 public:
  void parse(void* /*connection*/, void* result) override { seen = s_seen(result); }
  Seen seen;
};

// One select that answers with `rows`.
std::string s_select(const std::vector<Cells>& rows) {
  constexpr std::string_view s_digits = "0123456789abcdef";
  std::string statement;
  for (const Cells& row : rows) {
    statement += statement.empty() ? "select " : " union all select ";
    const char* separator = "";
    for (const Cell& cell : row) {
      statement += std::exchange(separator, ",");
      if (!cell) {
        statement += "null";
        continue;
      }
      statement += "x'";
      for (const char c : *cell) {
        const auto byte = static_cast<unsigned char>(c);
        statement += {s_digits[byte >> 4U], s_digits[byte & 0xfU]};
      }
      statement += "'";
    }
  }
  return statement;
}

TEST(RowInput, CellsFillTheColumnsRowByRow) {
  const Cells first{"a", "b"};
  const Cells second{"", std::nullopt};
  EXPECT_THAT(rowsOf("\1a\x1e"
                     "b\x1e\x1e\x1d"),
              ElementsAre(first, second));
}

TEST(RowInput, WhatIsMissingInTheLastRowIsNull) {
  const Cells row{"a", std::nullopt, std::nullopt};
  EXPECT_THAT(rowsOf("\2a"), ElementsAre(row));
  EXPECT_THAT(rowsOf(""), IsEmpty());
}

TEST(StoredResult, IsReadLikeTheAnswerOfAServerWithTheSameCells) {
  Testing::TestServer::shared();
  Database::Connection connection("");
  int compared = 0;
  for (const auto& entry : std::filesystem::directory_iterator(TSL_CORPUS "/row")) {
    SCOPED_TRACE(entry.path());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    const std::vector<Cells> rows = rowsOf(input);
    if (rows.empty()) continue;
    SeenParser parser;
    Database::Query query(connection, &parser, true);
    query << s_select(rows);
    query.execute();
    StoredResult stored(rows);
    EXPECT_EQ(s_seen(stored.result()), parser.seen);
    EXPECT_EQ(parser.seen.size(), rows.size());
    ++compared;
  }
  EXPECT_GE(compared, 15);
}

}  // namespace
}  // namespace Tessel::Fuzz
