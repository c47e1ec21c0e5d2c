// What a database server is among others: a node of a cluster, a primary, a replica.
#ifndef TSL_TOOLS_TABLES_SERVERROLE_H
#define TSL_TOOLS_TABLES_SERVERROLE_H

#include <chrono>
#include <optional>
#include <string>

#include "database/Connection.h"

namespace Tessel::Tool {

// Of a server that replicates from another one.
struct ReplicaState {
  // False: it was stopped, or cannot go on.
  bool isRunning = false;
  // How far it is behind, in whole seconds as it says itself; nothing when it does not know.
  std::optional<std::chrono::seconds> lag;
};

// Of a node of a Galera cluster, in the words of the server.
struct NodeState {
  std::string status;  // "Primary": it belongs to the part that works.
  std::string state;   // "Synced", "Donor/Desynced" and so on.
  std::string size;    // How many nodes it sees.
};

struct ServerRole {
  bool isReadOnly = false;
  std::optional<NodeState> node;
  std::optional<ReplicaState> replica;
  // The SQL user may not know whether it is a replica.
  bool isReplicaUnknown = false;
};

// Asks the server of `connection`, also where it is cut off from its cluster. Throws Exception when
// it cannot be asked.
ServerRole roleOf(Database::Connection& connection);

// The replication of the server; nothing where it replicates from no other. Throws Exception, error
// 1227 when the SQL user lacks the right REPLICA MONITOR.
std::optional<ReplicaState> replicaOf(Database::Connection& connection);

// For people: "node of a cluster of 3, Synced", "replica, 4 s behind, read-only".
std::string roleText(const ServerRole& role);

}  // namespace Tessel::Tool

#endif
