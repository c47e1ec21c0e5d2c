// LocalCluster: ports and passwords, the order in which nodes start, and the options of Galera.
#include "local/LocalCluster.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "base/Exception.h"
#include "base/bytes.h"
#include "base/sizes.h"
#include "base/sourceLine.h"
#include "database/Connection.h"
#include "database/Error.h"
#include "database/Query.h"
#include "disk/Descriptor.h"
#include "local/PrivateDirectory.h"
#include "local/ServerProcess.h"

namespace Tessel {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char s_context[] = "LocalCluster::start";
// How long a node that answers may take until it has caught up with the others.
constexpr std::chrono::seconds s_patience{60};
constexpr std::chrono::milliseconds s_pause{50};
// How long a process that is ending may keep its ports: on a busy machine, to clear its memory.
constexpr std::chrono::seconds s_release{5};
// Memory for table pages of one node, in bytes: several share the machine.
constexpr std::uint64_t s_pool = 64_MiB;

// Ports of a node, from its first one on: clients, the group, incremental and whole state transfer.
// Below those that the kernel gives to outgoing connections, which could take one while its node is
// down.
constexpr int s_portsPerNode = 4;
constexpr int s_lowestPort = 10000;
constexpr int s_highestPort = 32000;

[[noreturn]] void s_fail(const std::string& detail, int line = sourceLine()) {
  throw Exception(Exception(s_context, 4, "LocalCluster", line).stringParameter(detail));
}

std::string s_provider() {
  for (const char* path : {"/usr/lib/galera/libgalera_smm.so", "/usr/lib/galera-4/libgalera_smm.so",
                           "/usr/lib64/galera-4/libgalera_smm.so"}) {
    if (access(path, R_OK) == 0) return path;
  }
  s_fail("/usr/lib/galera/libgalera_smm.so was not found; install the Debian package galera-4");
}

void s_requirePrograms() {
  findServerProgram({"mariadbd", "mysqld"});
  s_provider();
  findServerProgram({"rsync"}, "rsync");
  findServerProgram({"wsrep_sst_rsync"}, "mariadb-server");
}

// Who runs the nodes, see the header.
Account s_nodeAccount() {
  if (geteuid() != 0) return {geteuid(), getegid()};
  std::array<char, 4_KiB> buffer{};
  for (const char* name : {"mysql", "nobody"}) {
    passwd entry{};
    passwd* found = nullptr;
    getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found);
    if (found != nullptr) return {entry.pw_uid, entry.pw_gid};
  }
  s_fail(
      "A cluster cannot run as root, and there is no user mysql or nobody; run this as another "
      "user");
}

std::string s_address(int port) {
  return "127.0.0.1:" + std::to_string(port);
}

// `text` of each port, `offset` behind it, with commas between.
std::string s_addresses(const std::vector<int>& ports, int offset) {
  std::string list;
  for (const int port : ports) list += (list.empty() ? "" : ",") + s_address(port + offset);
  return list;
}

bool s_isFree(int port) {
  const Tool::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  // As the servers do it: connections that are closing are not in the way.
  const int yes = 1;
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool s_areFree(const std::vector<int>& ports) {
  return std::all_of(ports.begin(), ports.end(), [](int first) {
    for (int port = first; port < first + s_portsPerNode; ++port) {
      if (!s_isFree(port)) return false;
    }
    return true;
  });
}

// The same, with time for servers that were killed a moment ago to let go of them.
bool s_becomeFree(const std::vector<int>& ports) {
  const Clock::time_point limit = Clock::now() + s_release;
  while (!s_areFree(ports)) {
    if (Clock::now() >= limit) return false;
    std::this_thread::sleep_for(s_pause);
  }
  return true;
}

std::vector<int> s_choosePorts(std::size_t count) {
  std::random_device random;
  std::uniform_int_distribution<int> any(s_lowestPort, s_highestPort);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::vector<int> ports{any(random)};
    while (ports.size() < count) ports.push_back(ports.back() + s_portsPerNode);
    if (s_areFree(ports)) return ports;
  }
  s_fail("Found no free ports on 127.0.0.1");
}

// What follows `key` in the last line of `file` that has it; empty when none has.
std::string s_valueIn(const std::string& file, const std::string& key) {
  std::ifstream stream(file);
  std::string value;
  for (std::string line; std::getline(stream, line);) {
    const std::size_t at = line.find(key);
    if (at != std::string::npos) value = line.substr(at + key.size());
  }
  return value;
}

constexpr char s_user[] = "tsl";

void s_writeOptionFile(const std::string& file, const std::vector<int>& ports,
                       const std::string& password) {
  writePrivateFile(file,
                   "# Leads clients to the nodes of the private cluster of this directory.\n"
                   "[client]\nhost=" +
                       s_addresses(ports, 0) + "\nuser=" + s_user + "\npassword=" + password);
}

// How far the data of a node go. Galera calls it the position of the node.
struct Position {
  std::string cluster = "00000000-0000-0000-0000-000000000000";
  long long number = -1;  // -1: unknown, or no data.

  [[nodiscard]] std::string text() const { return cluster + ":" + std::to_string(number); }
};

std::string s_stateFile(const LocalServer& server) {
  return server.dataDirectory() + "/grastate.dat";
}

// The position of a node that does not run. After a crash only the data files know it.
Position s_positionOf(LocalServer& server, LocalServer::Options options) {
  Position position;
  if (!fs::exists(server.dataDirectory() + "/ibdata1")) return position;
  std::istringstream saved(s_valueIn(s_stateFile(server), "seqno:"));
  saved >> position.number;
  if (position.number >= 0) {
    std::istringstream(s_valueIn(s_stateFile(server), "uuid:")) >> position.cluster;
    return position;
  }
  options.arguments.emplace_back("--wsrep-recover");
  // What an interrupted state transfer left may be beyond recovery: then there is no position, and
  // the node takes all data from the others.
  if (server.examine(options) != 0) return Position();
  const std::string found = s_valueIn(server.logFile(), "WSREP: Recovered position: ");
  const std::size_t colon = found.find(':');
  if (colon == std::string::npos) return Position();
  position.cluster = found.substr(0, colon);
  std::istringstream(found.substr(colon + 1)) >> position.number;
  return position;
}

// Lets the node begin a new group although others may have been stopped later: they were not, or
// are gone. What it remembers of the last group must not be waited for.
void s_allowToLead(const LocalServer& server, const Position& position) {
  fs::remove(server.dataDirectory() + "/gvwstate.dat");
  if (position.number < 0) {
    fs::remove(s_stateFile(server));
    return;
  }
  writePrivateFile(s_stateFile(server),
                   "# GALERA saved state\nversion: 2.1\nuuid:    " + position.cluster +
                       "\nseqno:   " + std::to_string(position.number) + "\nsafe_to_bootstrap: 1");
}

void s_execute(const std::string& statement) {
  Database::Connection connection("mysql");
  Database::Query query(connection, nullptr, false);
  query << statement;
  query.execute();
}

// Waits until the node belongs to the group and answers.
void s_awaitMember(const LocalServer& server) {
  const Clock::time_point limit = Clock::now() + s_patience;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): a child process without other threads
  setenv("TSL_DATABASE_OPTION_FILE", server.optionFile().c_str(), 1);
  for (;;) {
    try {
      return s_execute("select 1 from mysql.user limit 1");
    } catch (const Database::Error& error) {
      if (Clock::now() >= limit) {
        s_fail("A node did not become a member of the cluster within " +
               std::to_string(s_patience.count()) + " seconds (" + error.stringParameter() +
               "); see " + server.logFile());
      }
    }
    std::this_thread::sleep_for(s_pause);
  }
}

void s_makeAccount(const std::string& password) {
  const std::string name = std::string("'") + s_user + "'@'127.0.0.1'";
  s_execute("create user if not exists " + name + " identified by '" + password + "'");
  s_execute("grant all privileges on *.* to " + name + " with grant option");
}

std::string s_nodeName(std::size_t node) {
  return "node-" + std::to_string(node + 1);
}

}  // namespace

LocalCluster::LocalCluster(const std::string& directory) : m_base(directory) {}

bool LocalCluster::isIn(const std::string& directory) {
  std::error_code ignored;
  return fs::exists(fs::path(directory) / s_nodeName(0), ignored);
}

LocalServer LocalCluster::server(std::size_t node) const {
  return LocalServer(directory() + "/" + s_nodeName(node));
}

std::vector<int> LocalCluster::ports() const {
  std::istringstream hosts(s_valueIn(optionFile(), "host="));
  std::vector<int> ports;
  for (std::string host; std::getline(hosts, host, ',');) {
    std::istringstream(host.substr(host.find(':') + 1)) >> ports.emplace_back();
  }
  return ports;
}

std::vector<LocalCluster::Node> LocalCluster::nodes() const {
  std::vector<Node> nodes;
  for (const int port : ports()) {
    nodes.push_back({s_nodeName(nodes.size()), server(nodes.size()).pid(), port});
  }
  return nodes;
}

bool LocalCluster::isRunning() const {
  const std::vector<Node> all = nodes();
  return std::any_of(all.begin(), all.end(), [](const Node& node) { return node.pid != 0; });
}

LocalServer::Options LocalCluster::options(std::size_t node, const std::vector<int>& ports) const {
  const int port = ports[node];
  LocalServer::Options options;
  options.bufferPool = s_pool;
  options.arguments = {
      "--innodb-log-file-size=16M", "--skip-networking=0", "--bind-address=127.0.0.1",
      "--port=" + std::to_string(port),
      // Galera replicates rows, and assigns numbers itself.
      "--binlog-format=ROW", "--innodb-autoinc-lock-mode=2", "--wsrep-on=ON",
      "--wsrep-provider=" + s_provider(), "--wsrep-cluster-name=tsl-" + std::to_string(ports[0]),
      "--wsrep-cluster-address=gcomm://" + s_addresses(ports, 1),
      "--wsrep-node-name=" + s_nodeName(node), "--wsrep-node-address=" + s_address(port + 1),
      "--wsrep-node-incoming-address=" + s_address(port), "--wsrep-sst-method=rsync",
      "--wsrep-sst-receive-address=" + s_address(port + 3),
      // A silent node is left out after 2 seconds. Each time must be shorter than the next one, or
      // the provider does not start. On a busy machine it takes more than the usual three attempts
      // to agree who is left; after the last one a node leaves for good.
      "--wsrep-provider-options=gmcast.listen_addr=tcp://" + s_address(port + 1) +
          ";ist.recv_addr=" + s_address(port + 2) +
          ";gcache.size=32M;evs.keepalive_period=PT0.5S;evs.inactive_check_period=PT0.5S"
          ";evs.suspect_timeout=PT2S;evs.install_timeout=PT4S;evs.inactive_timeout=PT8S"
          ";evs.max_install_timeouts=20"};
  return options;
}

void LocalCluster::startNodes(const std::vector<int>& ports, const std::string& password) const {
  if (access(directory().c_str(), X_OK) != 0) {
    s_fail("The user " + callerName() + ", as whom the nodes run, cannot enter " + directory() +
           "; name a directory that is open to it, such as one in /tmp, with --local=DIR");
  }
  // State transfers are shell scripts.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): a child process without other threads
  const char* path = getenv("PATH");
  const std::string all =
      std::string(path != nullptr ? path : "") + ":/usr/sbin:/usr/bin:/sbin:/bin";
  setenv("PATH", all.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): as above

  std::vector<Position> positions(ports.size());
  std::vector<std::size_t> missing;
  for (std::size_t node = 0; node < ports.size(); ++node) {
    LocalServer one = server(node);
    if (one.isRunning()) continue;
    missing.push_back(node);
    positions[node] = s_positionOf(one, options(node, ports));
  }
  const auto howToStart = [&](std::size_t node) {
    LocalServer::Options how = options(node, ports);
    if (positions[node].number >= 0) {
      how.arguments.push_back("--wsrep-start-position=" + positions[node].text());
    }
    return how;
  };
  if (missing.size() == ports.size()) {
    // The latest data first.
    const auto first = std::max_element(missing.begin(), missing.end(), [&](auto a, auto b) {
      return positions[a].number < positions[b].number;
    });
    LocalServer leader = server(*first);
    s_allowToLead(leader, positions[*first]);
    LocalServer::Options how = howToStart(*first);
    how.arguments.emplace_back("--wsrep-new-cluster");
    leader.start(how);
    s_awaitMember(leader);
    s_makeAccount(password);
    missing.erase(first);
  }
  // Together: where most nodes are gone, one alone would wait for the others before it answers.
  std::vector<std::future<void>> starts;
  starts.reserve(missing.size());
  for (const std::size_t node : missing) {
    starts.push_back(std::async(std::launch::async, [this, node, how = howToStart(node)]() mutable {
      how.joins = true;
      server(node).start(how);
    }));
  }
  for (std::future<void>& start : starts) start.get();
  for (const std::size_t node : missing) s_awaitMember(server(node));
}

// Who runs the nodes owns their directories; the rest belongs to the caller.
void LocalCluster::makeNodeDirectories(std::size_t count) const {
  const Account account = s_nodeAccount();
  for (std::size_t node = 0; node < count; ++node) {
    const std::string path = server(node).directory();
    if (!fs::exists(path)) makePrivateDirectory(path);
    if (chown(path.c_str(), account.user, account.group) != 0) {
      s_fail("Cannot give " + path + " to the user who runs the nodes");
    }
  }
}

bool LocalCluster::create(int count) try {
  if (fs::exists(m_base.dataDirectory())) {
    s_fail(directory() + " holds a single private server; name another directory with --local=DIR");
  }
  s_requirePrograms();
  // The user of root's nodes passes through.
  makeServerDirectory(directory(), geteuid() == 0 ? S_IRWXU | S_IXGRP | S_IXOTH : S_IRWXU);
  {
    const DirectoryLock lock(s_context, directory());
    if (!fs::exists(optionFile())) {
      // The password has 128 bits.
      s_writeOptionFile(optionFile(), s_choosePorts(static_cast<std::size_t>(count)),
                        randomHex(16));
    }
    if (const std::size_t before = ports().size(); before != static_cast<std::size_t>(count)) {
      s_fail(directory() + " holds a cluster of " + std::to_string(before) +
             " nodes; name another directory with --local=DIR");
    }
    makePrivateDirectory(cmfDirectory());
    makeNodeDirectories(static_cast<std::size_t>(count));
  }
  return complete();
} catch (const fs::filesystem_error& error) {
  s_fail(error.what());
}

bool LocalCluster::start() {
  return !isRunning() && complete();
}

bool LocalCluster::complete() try {
  s_requirePrograms();
  const DirectoryLock lock(s_context, directory());
  std::vector<int> ports = this->ports();
  makeNodeDirectories(ports.size());
  const std::vector<Node> before = nodes();
  const auto missing =
      std::count_if(before.begin(), before.end(), [](const Node& node) { return node.pid == 0; });
  // Programs that know the ports keep them, unless another program took one meanwhile.
  if (!isRunning() && !s_becomeFree(ports)) {
    ports = s_choosePorts(ports.size());
    s_writeOptionFile(optionFile(), ports, s_valueIn(optionFile(), "password="));
  }
  const std::string password = s_valueIn(optionFile(), "password=");
  if (missing == 0) return false;
  runAs(s_nodeAccount(), [&] { startNodes(ports, password); });
  return true;
} catch (const fs::filesystem_error& error) {
  s_fail(error.what());
}

bool LocalCluster::stop() {
  if (!fs::exists(directory())) return false;
  const DirectoryLock lock(s_context, directory());
  if (!isRunning()) return false;
  const std::vector<Node> all = nodes();
  runAs(s_nodeAccount(), [this, &all] {
    // All at once: the next start finds out which one has the latest data.
    for (const Node& node : all) {
      if (node.pid != 0) kill(node.pid, SIGTERM);
    }
    for (std::size_t node = 0; node < all.size(); ++node) server(node).stop();
  });
  return true;
}

}  // namespace Tessel
