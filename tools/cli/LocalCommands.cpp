// The commands on the private server: start, stop, status, shell.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "cli/Command.h"
#include "cli/LocalFailure.h"
#include "local/LocalServer.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// The first line of an answer.
std::string s_summary(const LocalServer& server) {
  const pid_t pid = server.pid();
  return pid != 0 ? "running, pid " + std::to_string(pid) : std::string("not running");
}

std::string s_summary(const LocalCluster& cluster) {
  const std::vector<LocalCluster::Node> nodes = cluster.nodes();
  const auto running = std::count_if(nodes.begin(), nodes.end(),
                                     [](const LocalCluster::Node& node) { return node.pid != 0; });
  if (running == 0) return "not running";
  return "running, " + std::to_string(running) + " of " + std::to_string(nodes.size()) + " nodes";
}

Json s_number(pid_t pid) {
  return pid != 0 ? Json(pid) : Json();
}

void s_addPlace(Json& document, const LocalServer& server) {
  document["pid"] = s_number(server.pid());
  document["directory"] = printable(server.directory());
  document["socket"] = printable(server.socketPath());
}

void s_addPlace(Json& document, const LocalCluster& cluster) {
  Json nodes = Json::array();
  for (const LocalCluster::Node& node : cluster.nodes()) {
    nodes.push_back(Json{{"name", node.name}, {"pid", s_number(node.pid)}, {"port", node.port}});
  }
  document["nodes"] = nodes;
  document["directory"] = printable(cluster.directory());
}

void s_addPlace(Output& output, const LocalServer& server) {
  output.line("socket: " + printable(server.socketPath()));
}

void s_addPlace(Output& output, const LocalCluster& cluster) {
  for (const LocalCluster::Node& node : cluster.nodes()) {
    output.line(node.name + ": 127.0.0.1:" + std::to_string(node.port) +
                (node.pid != 0 ? ", pid " + std::to_string(node.pid) : ", not running"));
  }
}

template <class Server>
void s_answer(Session& session, const Server& server) {
  if (session.isJson()) {
    Json document{{"running", server.isRunning()}};
    s_addPlace(document, server);
    document["optionFile"] = printable(server.optionFile());
    document["cmf"] = printable(server.cmfDirectory());
    session.output().document(document);
    return;
  }
  Output& output = session.output();
  output.line(s_summary(server));
  output.line("directory: " + printable(server.directory()));
  s_addPlace(output, server);
  output.line("option file: " + printable(server.optionFile()));
  output.line("configuration: " + printable(server.cmfDirectory()));
}

struct StartArguments {
  std::optional<std::string> nodes;
};

int s_nodeCount(const std::string& text) {
  const int count = text.size() == 1 && text[0] >= '0' && text[0] <= '9' ? text[0] - '0' : 0;
  if (count >= LocalCluster::s_fewestNodes && count <= LocalCluster::s_mostNodes) return count;
  throw Failure(ExitCode::Usage, "--nodes '" + text + "'",
                "a cluster has " + std::to_string(LocalCluster::s_fewestNodes) + " to " +
                    std::to_string(LocalCluster::s_mostNodes) + " nodes",
                "give 3, of which any two go on without the third");
}

bool s_startAll(LocalServer& server) {
  return server.start();
}

bool s_startAll(LocalCluster& cluster) {
  return cluster.complete();
}

ExitCode s_start(Session& session, const StartArguments& arguments) {
  const std::string directory = session.localDirectory();
  if (arguments.nodes) {
    const int count = s_nodeCount(*arguments.nodes);
    return withLocal<LocalCluster>(directory, [&session, count](LocalCluster& cluster) {
      if (!cluster.create(count)) say("the private cluster runs already");
      s_answer(session, cluster);
      return ExitCode::Done;
    });
  }
  return withLocalServer(directory, [&session](auto& server) {
    if (!s_startAll(server)) say("the private server runs already");
    s_answer(session, server);
    return ExitCode::Done;
  });
}

ExitCode s_stop(Session& session) {
  return withLocalServer(session.localDirectory(), [&session](auto& server) {
    if (!server.stop()) say("no private server runs in " + server.directory());
    if (session.isJson()) s_answer(session, server);
    return ExitCode::Done;
  });
}

ExitCode s_status(Session& session) {
  return withLocalServer(session.localDirectory(), [&session](auto& server) {
    s_answer(session, server);
    return server.isRunning() ? ExitCode::Done : ExitCode::NotFound;
  });
}

// Becomes the command-line client. Returns only when there is none.
void s_becomeClient(const std::string& optionFile) {
  // Undo what `main` set for this program alone.
  std::signal(SIGPIPE, SIG_DFL);
  std::signal(SIGXFSZ, SIG_DFL);
  const std::string option = "--defaults-file=" + optionFile;
  int error = 0;
  for (const char* client : {"mariadb", "mysql"}) {
    execlp(client, client, option.c_str(), "--default-character-set=utf8mb4", s_database,
           static_cast<char*>(nullptr));
    error = errno;
  }
  throw Failure(ExitCode::Configuration, "the command-line client 'mariadb'",
                std::generic_category().message(error),
                "install it: apt-get install mariadb-client-core");
}

ExitCode s_shell(Session& session) {
  session.useLocal();
  session.prepare(Preparation::Database);
  s_becomeClient(LocalServer(session.localDirectory()).optionFile());
  return ExitCode::Done;
}

}  // namespace

void addLocalCommands(Command& top) {
  Command group = top.group(
      "local", "Start, stop and use a private database server in a directory of your own");
  auto arguments = std::make_shared<StartArguments>();
  Command start =
      group.command("start", "Start the private server or cluster; the first start sets it up",
                    "  tsl-address-map local start\n"
                    "  tsl-address-map local start --local=/tmp/trial\n"
                    "  tsl-address-map local start --nodes 3 --local=/tmp/cluster\n"
                    "Prints what 'local status' prints. Starts the missing nodes of a cluster.\n",
                    Preparation::Nothing, withArguments(s_start, arguments));
  start.option("--nodes", arguments->nodes, "N",
               "Set up a Galera cluster of 2 to 9 servers on 127.0.0.1 instead of one server; needs"
               " the packages galera-4, rsync and mariadb-server");
  group.command("stop", "Stop the private server; exit 0 also when none runs",
                "  tsl-address-map local stop --local=/tmp/trial\n", Preparation::Nothing, s_stop);
  group.command(
      "status", "Show whether the private server runs, and where; exit 1 when not",
      "  tsl-address-map local status --json\n"
      "With --json {\"running\", \"pid\", \"directory\", \"socket\", \"optionFile\", \"cmf\"};\n"
      "for a cluster \"nodes\" with \"name\", \"pid\" and \"port\" instead of \"pid\" and "
      "\"socket\".\n",
      Preparation::Nothing, s_status);
  group.command("shell", "Open the SQL client on the private server, which is started if needed",
                "  tsl-address-map local shell\n"
                "  echo 'select count(*) from alias' | tsl-address-map local shell\n",
                Preparation::Nothing, s_shell);
}

}  // namespace Tessel::Tool
