// Tests of the row parser: what it makes of a result.
#include "map/TsRowParser.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/Connection.h"
#include "database/Query.h"
#include "support/Caught.h"
#include "support/MapDatabase.h"

namespace Tessel {
namespace {

// A row of one text column; an empty text does not parse, "throw" throws.
class TextRow : public Database::RowImpl {
 public:
  bool parse(void* connection, void* result, void* row) override {
    if (db_result_field_length(result, 0) == 0) return false;
    m_text = db_result_get_value(connection, result, row, 0);
    if (m_text == "throw") throw Exception("parse", 4, "TextRow", 1);
    return true;
  }
  std::string m_text = "unchanged";
};

class TsRowParserOnServer : public Testing::MapDatabase {
 protected:
  std::vector<std::string> texts(const std::string& statement) {
    Database::RowContainer rows;
    Database::TsRowParser<TextRow> parser(rows);
    Database::Connection connection("ts_address_map");
    Database::Query query(connection, &parser, true);
    query << statement;
    query.execute();
    std::vector<std::string> found;
    for (const auto& row : rows.rows()) {
      found.push_back(static_cast<const TextRow&>(**row).m_text);
    }
    return found;
  }
};

TEST_F(TsRowParserOnServer, StoresOneRowForEachRowInResultOrder) {
  EXPECT_THAT(texts("select 'b' union all select 'a' union all select 'c'"),
              testing::ElementsAre("b", "a", "c"));
}

TEST_F(TsRowParserOnServer, AnEmptyResultStoresNothing) {
  EXPECT_THAT(texts("select 'a' from dual where 1=0"), testing::IsEmpty());
}

TEST_F(TsRowParserOnServer, ARowThatDoesNotParseIsStoredAsItWasMade) {
  EXPECT_THAT(texts("select 'a' union all select '' union all select 'c'"),
              testing::ElementsAre("a", "unchanged", "c"));
}

TEST_F(TsRowParserOnServer, WhatARowThrowsPasses) {
  EXPECT_EQ(Testing::caught([&] { texts("select 'throw'"); }).context(), "parse");
}

TEST_F(TsRowParserOnServer, AStreamHandsOutEachRowInResultOrder) {
  std::vector<std::string> found;
  const auto take = [&found](const TextRow& row) { found.push_back(row.m_text); };
  Database::TsRowStream<TextRow, decltype(take)> parser(take);
  Database::Connection connection("ts_address_map");
  Database::Query query(connection, &parser, true);
  query << "select 'b' union all select '' union all select 'c' union all select 'throw'";
  EXPECT_EQ(Testing::caught([&] { query.execute(); }).context(), "parse");
  EXPECT_THAT(found, testing::ElementsAre("b", "unchanged", "c"));
  parser.parse(nullptr, nullptr);
  EXPECT_EQ(found.size(), 3U);
}

TEST(TsRowParser, NoResultIsIgnored) {
  Database::RowContainer rows;
  Database::TsRowParser<TextRow> parser(rows);
  parser.parse(nullptr, nullptr);
  EXPECT_TRUE(rows.rows().empty());
}

}  // namespace
}  // namespace Tessel
