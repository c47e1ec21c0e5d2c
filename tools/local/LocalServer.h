// A private MariaDB server under the caller's own user, in a directory of its own.
#ifndef TSL_TOOLS_LOCAL_LOCALSERVER_H
#define TSL_TOOLS_LOCAL_LOCALSERVER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Tessel {

// A real `mariadbd` that only its owner can reach: by a Unix socket in a directory of mode 0700,
// without a network port and without a password. All its files are in one directory: `data/`,
// `run/` (the socket), `tmp/`, `client.cnf` (the option file for its clients), `cmf/` (a
// configuration environment) and `server.log`. The server outlives the program that started it,
// until stop().
//
// Start and stop from any number of processes wait for each other. One object: one thread at a
// time. All failures are thrown as `Exception`, code 4, with what to do in the detail text.
class LocalServer {
 public:
  // What a start may change. They take effect when the server is started, not while it runs.
  struct Options {
    // Memory for table pages, in bytes. 0: a quarter of the machine's memory, at most 1 GiB.
    std::uint64_t bufferPool = 0;
    // False: a committed transaction may be lost when the machine (not the server) crashes.
    bool durable = true;
    // Further arguments for mariadbd. Those that begin with "--innodb-" are used for the set-up of
    // the data files too.
    std::vector<std::string> arguments;
    // True: the first start makes an empty data directory, which the server fills from others.
    bool joins = false;
  };

  // The first start creates `directory`. A relative one is taken from the current directory. Throws
  // when it contains a quote, a backslash or a control character.
  explicit LocalServer(const std::string& directory);

  // $XDG_STATE_HOME/tsl-address-map, or ~/.local/state/tsl-address-map. Throws when neither the
  // environment nor the user database knows a home directory. The environment must not be changed
  // by another thread meanwhile.
  static std::string defaultDirectory();

  // Returns with a server that answers: true when this call started it, false when it ran already.
  // The first start sets up the data files. Throws when it does not answer within 60 seconds.
  bool start(const Options& options);
  bool start();
  // Runs the server as `options` say until it ends by itself, and returns its exit status: for a
  // server that looks at its data files and says what they hold in its log. Requires: it was
  // started before and does not run.
  int examine(const Options& options);
  // Shuts the server down and waits for that: true when this call stopped it, false when none ran.
  // Throws when it still runs after 60 seconds.
  bool stop();

  [[nodiscard]] bool isRunning() const;
  // Process id of the running server, or 0.
  [[nodiscard]] pid_t pid() const;

  [[nodiscard]] const std::string& directory() const noexcept { return m_directory; }
  // For TSL_DATABASE_OPTION_FILE. The file exists from the first start on.
  [[nodiscard]] std::string optionFile() const;
  // For TSL_CMF_PATH. The directory exists from the first start on.
  [[nodiscard]] std::string cmfDirectory() const;
  // Where the server writes its messages.
  [[nodiscard]] std::string logFile() const;
  [[nodiscard]] std::string dataDirectory() const;
  // Usually in `run/`; in a directory of its own elsewhere when that path is too long for a socket.
  // A start creates such a directory, and the next may create another one; the path is empty before
  // the first one.
  [[nodiscard]] std::string socketPath() const;

 private:
  [[nodiscard]] std::string runDirectory() const;
  [[nodiscard]] std::string pidFile() const;
  void setUpData(const Options& options, int lock) const;
  void placeSocket() const;
  void removeSocketDirectory() const;
  void writeOptionFile() const;
  [[nodiscard]] std::vector<std::string> arguments(const Options& options) const;
  // Fit to follow an error message.
  [[nodiscard]] std::string lastLogLines() const;
  void awaitAnswer(pid_t server) const;

  std::string m_directory;  // Absolute.
};

}  // namespace Tessel

#endif
