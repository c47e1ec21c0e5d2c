// ServerRole: what people read about a server. How servers are asked is tested with the service and
// the command `status`.
#include "tables/ServerRole.h"

#include <chrono>

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

TEST(ServerRole, ALoneServerIsAServer) {
  EXPECT_EQ(roleText({}), "server");
  ServerRole role;
  role.isReadOnly = true;
  EXPECT_EQ(roleText(role), "server, read-only");
  role.isReplicaUnknown = true;
  EXPECT_EQ(roleText(role), "server, replica or not is unknown, read-only");
}

TEST(ServerRole, AReplicaTellsHowFarItIsBehind) {
  ServerRole role;
  role.replica = ReplicaState{true, std::chrono::seconds(4)};
  role.isReadOnly = true;
  EXPECT_EQ(roleText(role), "replica, 4 s behind, read-only");
  role.replica = ReplicaState{true, std::nullopt};
  EXPECT_EQ(roleText(role), "replica, of unknown lag, read-only");
  role.replica = ReplicaState{false, std::chrono::seconds(4)};
  EXPECT_EQ(roleText(role), "replica, stopped, read-only");
}

TEST(ServerRole, ANodeTellsItsStateAndWhetherItIsCutOff) {
  ServerRole role;
  role.node = NodeState{"Primary", "Synced", "3"};
  EXPECT_EQ(roleText(role), "node of a cluster of 3, Synced");
  role.node = NodeState{"non-Primary", "Initialized", "1"};
  EXPECT_EQ(roleText(role), "node of a cluster of 1, Initialized, cut off (non-Primary)");
  role.replica = ReplicaState{true, std::chrono::seconds(0)};
  EXPECT_EQ(roleText(role),
            "replica, 0 s behind, node of a cluster of 1, Initialized, cut off (non-Primary)");
}

}  // namespace
}  // namespace Tessel::Tool
