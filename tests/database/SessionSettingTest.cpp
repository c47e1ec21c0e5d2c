// SessionSetting: a setting that every session of a program gets.
#include "database/SessionSetting.h"

#include <string>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

class SessionSettingTest : public DatabaseTest {
 protected:
  void TearDown() override { waitForOtherNodes(false); }

  static std::string waiting() {
    Connection connection(s_name);
    return value(connection, "select @@wsrep_sync_wait");
  }
};

TEST_F(SessionSettingTest, NewSessionsWaitForOtherNodesOnlyWhenThatIsWanted) {
  EXPECT_EQ(waiting(), "0");
  waitForOtherNodes(true);
  EXPECT_EQ(waiting(), "7");
  waitForOtherNodes(false);
  EXPECT_EQ(waiting(), "0");
}

}  // namespace
}  // namespace Tessel::Database
