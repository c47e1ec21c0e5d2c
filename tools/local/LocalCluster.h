// A private cluster of MariaDB servers on this machine, to try and to test how a cluster behaves.
#ifndef TSL_TOOLS_LOCAL_LOCALCLUSTER_H
#define TSL_TOOLS_LOCAL_LOCALCLUSTER_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "local/LocalServer.h"

namespace Tessel {

// Several private servers that Galera keeps the same, each with all the data. They listen on
// 127.0.0.1, at ports chosen by the first start; clients log in with the password in `client.cnf`.
// Its directory holds `node-1/`, `node-2/` and so on, each laid out as that of a `LocalServer`,
// `client.cnf` with the hosts of all nodes, and `cmf/`.
//
// A root caller's nodes run as the user `mysql`, or `nobody` where there is none: the daemon that
// takes a state transfer gives up the rights of root, and could not write root's files.
//
// Start and stop from any number of processes wait for each other. One object: one thread at a
// time, in a program without other threads. All failures are thrown as `Exception`, code 4, with
// what to do in the detail text.
class LocalCluster {
 public:
  struct Node {
    std::string name;
    pid_t pid = 0;  // 0 when it does not run.
    int port = 0;   // Where clients connect to it, on 127.0.0.1.
  };

  static constexpr int s_fewestNodes = 2;
  static constexpr int s_mostNodes = 9;

  // A relative directory is taken from the current one. Throws as LocalServer's constructor does.
  explicit LocalCluster(const std::string& directory);

  // True when `directory` holds a cluster, running or not.
  static bool isIn(const std::string& directory);

  // Sets up a cluster of `count` nodes, unless there is one, and completes it. Throws when the
  // directory holds a cluster of another number of nodes, or a single server, and when a program is
  // missing.
  bool create(int count);
  // Starts the nodes that do not run, and returns when they are members: true when there were any.
  // After all were stopped, or have crashed, the one with the latest data starts first.
  bool complete();
  // The same when no node runs. Otherwise does nothing: somebody tries the others.
  bool start();
  // Stops the nodes that run, and waits for that: true when there were any.
  bool stop();

  // True when a node runs.
  [[nodiscard]] bool isRunning() const;
  // In the order of their names; none before create().
  [[nodiscard]] std::vector<Node> nodes() const;

  [[nodiscard]] const std::string& directory() const noexcept { return m_base.directory(); }
  // For TSL_DATABASE_OPTION_FILE.
  [[nodiscard]] std::string optionFile() const { return m_base.optionFile(); }
  // For TSL_CMF_PATH.
  [[nodiscard]] std::string cmfDirectory() const { return m_base.cmfDirectory(); }
  // Empty: clients connect to the nodes' ports.
  [[nodiscard]] static std::string socketPath() { return {}; }

 private:
  [[nodiscard]] std::vector<int> ports() const;
  [[nodiscard]] LocalServer server(std::size_t node) const;
  [[nodiscard]] LocalServer::Options options(std::size_t node, const std::vector<int>& ports) const;
  void makeNodeDirectories(std::size_t count) const;
  // Requires: a child process that runs as the user of the nodes.
  void startNodes(const std::vector<int>& ports, const std::string& password) const;

  LocalServer m_base;  // Never started: it knows the directory, its option file and its `cmf/`.
};

}  // namespace Tessel

#endif
