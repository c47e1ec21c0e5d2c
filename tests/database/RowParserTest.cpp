// RowParser: what a parser is given, and the virtual slots that other modules rely on.
#include "database/RowParser.h"

#include <memory>

#include "database/DatabaseTest.h"
#include "database/RowImpl.h"
#include "support/Layout.h"

namespace Tessel::Database {
namespace {

TEST(RowParser, TheParseOperationFollowsTheTwoSlotsOfTheDestructor) {
  EXPECT_EQ(Testing::virtualSlot(&RowParser::parse), 2);
  EXPECT_EQ(Testing::virtualSlot(&AllRowParser::parse), 2);
  EXPECT_EQ(Testing::virtualSlot(&RowImpl::parse), 2);
}

TEST(RowParser, AParserIsDestroyedThroughItsBase) {
  struct Parser : AllRowParser {
    explicit Parser(bool& gone) : m_gone(gone) {}
    ~Parser() override { m_gone = true; }
    void parse(void*, void*) override {}
    bool& m_gone;
  };
  bool gone = false;
  std::unique_ptr<RowParser>(new Parser(gone)).reset();
  EXPECT_TRUE(gone);
}

class RowParserOnServer : public DatabaseTest {};

TEST_F(RowParserOnServer, TheParserIsGivenTheConnectionOfItsQuery) {
  struct Parser : RowParser {
    void parse(void* connection, void* result) override {
      seen = connection;
      rows = db_result_row_num(result);
    }
    void* seen = nullptr;
    std::int64_t rows = 0;
  } parser;
  Connection connection(s_name);
  Query query(connection, &parser, true);
  query << "select 1 union select 2";
  query.execute();
  EXPECT_EQ(parser.seen, &connection);
  EXPECT_EQ(parser.rows, 2);
}

}  // namespace
}  // namespace Tessel::Database
