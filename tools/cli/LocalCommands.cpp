// The commands on the private server: start, stop, status, shell.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <system_error>

#include "cli/Command.h"
#include "cli/LocalFailure.h"
#include "local/LocalServer.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

void s_answer(Session& session, const LocalServer& server) {
  const pid_t pid = server.pid();
  if (session.isJson()) {
    session.output().document(Json{{"running", pid != 0},
                                   {"pid", pid != 0 ? Json(pid) : Json()},
                                   {"directory", printable(server.directory())},
                                   {"socket", printable(server.socketPath())},
                                   {"optionFile", printable(server.optionFile())},
                                   {"cmf", printable(server.cmfDirectory())}});
    return;
  }
  Output& output = session.output();
  output.line(pid != 0 ? "running, pid " + std::to_string(pid) : std::string("not running"));
  output.line("directory: " + printable(server.directory()));
  output.line("socket: " + printable(server.socketPath()));
  output.line("option file: " + printable(server.optionFile()));
  output.line("configuration: " + printable(server.cmfDirectory()));
}

ExitCode s_start(Session& session) {
  return withLocalServer(session.localDirectory(), [&session](LocalServer& server) {
    if (!server.start()) say("the private server runs already");
    s_answer(session, server);
    return ExitCode::Done;
  });
}

ExitCode s_stop(Session& session) {
  return withLocalServer(session.localDirectory(), [&session](LocalServer& server) {
    if (!server.stop()) say("no private server runs in " + server.directory());
    if (session.isJson()) s_answer(session, server);
    return ExitCode::Done;
  });
}

ExitCode s_status(Session& session) {
  return withLocalServer(session.localDirectory(), [&session](LocalServer& server) {
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
  group.command("start", "Start the private server; the first start sets it up",
                "  tsl-address-map local start\n"
                "  tsl-address-map local start --local=/tmp/trial\n"
                "Prints what 'local status' prints.\n",
                Preparation::Nothing, s_start);
  group.command("stop", "Stop the private server; exit 0 also when none runs",
                "  tsl-address-map local stop --local=/tmp/trial\n", Preparation::Nothing, s_stop);
  group.command(
      "status", "Show whether the private server runs, and where; exit 1 when not",
      "  tsl-address-map local status --json\n"
      "With --json {\"running\", \"pid\", \"directory\", \"socket\", \"optionFile\", \"cmf\"}.\n",
      Preparation::Nothing, s_status);
  group.command("shell", "Open the SQL client on the private server, which is started if needed",
                "  tsl-address-map local shell\n"
                "  echo 'select count(*) from alias' | tsl-address-map local shell\n",
                Preparation::Nothing, s_shell);
}

}  // namespace Tessel::Tool
