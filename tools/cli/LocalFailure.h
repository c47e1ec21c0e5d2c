// The private server as the commands use it, with its failures distinguished.
#ifndef TSL_TOOLS_CLI_LOCALFAILURE_H
#define TSL_TOOLS_CLI_LOCALFAILURE_H

#include <string>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "local/LocalCluster.h"
#include "local/LocalServer.h"

namespace Tessel::Tool {

// The failure that `exception`, thrown for the private server in `directory`, is: `Unavailable`
// when a server that is set up does not run as it should, `Configuration` when it cannot be set up.
Failure localFailure(const Exception& exception, const std::string& directory);

// The default directory. Throws Failure when there is none.
std::string defaultLocalDirectory();

// Calls `use` with the private server, of type `Server`, in `directory`, and throws its failures as
// Failure.
template <class Server, class Use>
auto withLocal(const std::string& directory, Use use) {
  try {
    Server server(directory);
    return use(server);
  } catch (const Exception& exception) {
    throw localFailure(exception, directory);
  }
}

// The same with the private cluster in `directory`, if it holds one, or the private server.
template <class Use>
auto withLocalServer(const std::string& directory, Use use) {
  return LocalCluster::isIn(directory) ? withLocal<LocalCluster>(directory, use)
                                       : withLocal<LocalServer>(directory, use);
}

}  // namespace Tessel::Tool

#endif
