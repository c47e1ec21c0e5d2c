// The test helpers GeneralLog and SocketRelay: they see what happens, and fail to see what does
// not.
#include "support/GeneralLog.h"

#include <string>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class GeneralLogTest : public DatabaseTest {};

TEST_F(GeneralLogTest, StatementsAppearExactlyAsTheyWereReceived) {
  Connection connection(s_name);
  Testing::GeneralLog log(server());
  EXPECT_THAT(log.statementsSince(), IsEmpty());
  run(connection, "select\n 'two\tlines',\n 1");
  EXPECT_THAT(log.statementsSince(), ElementsAre("select\n 'two\tlines',\n 1"));
  log.mark();
  EXPECT_THAT(log.statementsSince(), IsEmpty());
}

TEST_F(GeneralLogTest, EveryAnsweredStatementIsThere) {
  Connection connection(s_name);
  Testing::GeneralLog log(server());
  for (int i = 0; i < 500; ++i) run(connection, "select " + std::to_string(i));
  EXPECT_THAT(log.statementsSince(), SizeIs(500));
}

TEST_F(GeneralLogTest, TheHelpersOwnStatementsAndTheSessionSetUpAreLeftOut) {
  Testing::GeneralLog log(server());
  sql("select 'own'");
  Connection connection("");
  run(connection, "select 'seen'");
  EXPECT_THAT(log.statementsSince(), ElementsAre("select 'seen'"));
}

TEST_F(GeneralLogTest, ATextWithoutEntriesGivesNone) {
  EXPECT_THAT(Testing::GeneralLog::parse("Time\t\t    Id Command\tArgument\nx\n"), IsEmpty());
}

class SocketRelayTest : public RelayedTest {};

TEST_F(SocketRelayTest, BytesPassUntilTheCut) {
  Connection connection(s_name);
  EXPECT_EQ(connection.peerAddress().host(), relayPath());
  EXPECT_EQ(m_relay.connections(), 1);
  EXPECT_EQ(value(connection, "select 1"), "1");
  EXPECT_FALSE(m_relay.endCut());
  m_relay.cutAfter(Testing::SocketRelay::Direction::ToServer, 3);
  EXPECT_THROW(run(connection, "update nowhere set a=1", false), Error);
  EXPECT_TRUE(m_relay.endCut());
}

TEST_F(SocketRelayTest, StatementsAreRecordedToTheirLastCharacter) {
  Connection connection(s_name);
  const std::size_t before = m_relay.statements().size();
  run(connection, "select 1; \n");
  run(connection, "select '" + std::string(50000, 'x') + "';");
  const auto got = m_relay.statements();
  ASSERT_EQ(got.size(), before + 2);
  EXPECT_EQ(got[before], "select 1; \n");
  EXPECT_EQ(got[before + 1], "select '" + std::string(50000, 'x') + "';");
}

}  // namespace
}  // namespace Tessel::Database
