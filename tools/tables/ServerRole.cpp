// What a database server is among others.
#include "tables/ServerRole.h"

#include <charconv>

#include "failure/Failure.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// The server's error for a missing right of the whole server.
constexpr unsigned int s_rightMissing = 1227;

// The value that the server shows for `name`, empty where it has none.
std::string s_shown(Database::Connection& connection, const char* what, const char* name) {
  const auto rows =
      selectTexts(connection, std::string("show global ") + what + " like '" + name + "'", 2);
  return rows.empty() ? "" : rows[0][1];
}

std::string s_behind(const ReplicaState& replica) {
  if (!replica.isRunning) return "replica, stopped";
  if (!replica.lag) return "replica, of unknown lag";
  return "replica, " + std::to_string(replica.lag->count()) + " s behind";
}

}  // namespace

std::optional<ReplicaState> replicaOf(Database::Connection& connection) {
  const auto rows = selectNamed(connection, "show replica status");
  if (rows.empty()) return std::nullopt;
  // MariaDB and MySQL have different words.
  const auto value = [&row = rows[0]](const char* mariaDb, const char* mySql) {
    const auto found = row.find(mariaDb);
    return found != row.end() ? found->second : row.at(mySql);
  };
  ReplicaState replica;
  replica.isRunning = value("Slave_IO_Running", "Replica_IO_Running") == "Yes" &&
                      value("Slave_SQL_Running", "Replica_SQL_Running") == "Yes";
  const std::string lag = value("Seconds_Behind_Master", "Seconds_Behind_Source");
  int seconds = 0;
  const auto read = std::from_chars(lag.data(), lag.data() + lag.size(), seconds);
  if (read.ec == std::errc()) replica.lag = std::chrono::seconds(seconds);
  return replica;
}

ServerRole roleOf(Database::Connection& connection) {
  ServerRole role;
  role.isReadOnly = s_shown(connection, "variables", "read_only") == "ON";
  NodeState node{s_shown(connection, "status", "wsrep_cluster_status"),
                 s_shown(connection, "status", "wsrep_local_state_comment"),
                 s_shown(connection, "status", "wsrep_cluster_size")};
  // A server that could be a node and is none says "Disconnected" and 0.
  const bool isNode = s_shown(connection, "variables", "wsrep_on") == "ON";
  if (isNode) role.node = node;
  try {
    role.replica = replicaOf(connection);
  } catch (const Exception& exception) {
    if (!isDatabaseError(exception, s_rightMissing)) throw;
    role.isReplicaUnknown = true;
  }
  return role;
}

std::string roleText(const ServerRole& role) {
  std::string text = role.replica ? s_behind(*role.replica) : "";
  if (role.node) {
    if (!text.empty()) text += ", ";
    text += "node of a cluster of " + role.node->size + ", " + role.node->state;
    if (role.node->status != "Primary") text += ", cut off (" + role.node->status + ")";
  }
  if (text.empty()) text = role.isReplicaUnknown ? "server, replica or not is unknown" : "server";
  return role.isReadOnly ? text + ", read-only" : text;
}

}  // namespace Tessel::Tool
