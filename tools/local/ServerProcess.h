// Programs that the private server needs: finding them, running them and looking at them.
#ifndef TSL_TOOLS_LOCAL_SERVERPROCESS_H
#define TSL_TOOLS_LOCAL_SERVERPROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Tessel {

// Path of the first of `names` that PATH, /usr/sbin, /usr/bin, /usr/local/sbin or /usr/local/bin
// holds as a program. Throws Exception, code 4, naming the Debian package to install.
std::string findServerProgram(const std::vector<std::string>& names,
                              const std::string& package = "mariadb-server-core");

// Starts a program in a session of its own, with its output appended to `logFile`, no other open
// files and the default signals. With `pidFile` not empty it writes its process id there before it
// does anything else. Returns its process id; the caller collects it with hasEnded(). Throws
// Exception, code 4, when it cannot be started.
pid_t startDetached(const std::vector<std::string>& command, const std::string& logFile,
                    const std::string& pidFile);

// Runs a program the same way to its end and returns its exit status, or 128 plus the signal. When
// this process dies meanwhile, the program and all that it started are killed. They inherit the
// descriptor `lock`, and no other.
int runDetached(const std::vector<std::string>& command, const std::string& logFile, int lock);

// True when process `pid` is a database server with exactly the argument `argument`.
bool isServer(pid_t pid, const std::string& argument);

// True when `pid` is gone. Collects it when it is a child of this process.
bool hasEnded(pid_t pid);

// True when a database server greets a client on the Unix socket `path` within `milliseconds`.
bool greets(const std::string& path, int milliseconds);

// The name of the user that this process runs as. Throws Exception, code 4, when there is none.
std::string callerName();

// A user of this machine.
struct Account {
  uid_t user = 0;
  gid_t group = 0;
};

// Calls `work` in a child process that has become `account` for good, and waits for its end. Only
// root can name another account than its own. Throws Exception, code 4, with the detail text of the
// `Exception` that `work` threw. Requires: no other threads.
void runAs(const Account& account, const std::function<void()>& work);

}  // namespace Tessel

#endif
