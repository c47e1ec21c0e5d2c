// The private server as the commands use it, with its failures distinguished.
#ifndef TSL_TOOLS_CLI_LOCALFAILURE_H
#define TSL_TOOLS_CLI_LOCALFAILURE_H

#include <string>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "local/LocalServer.h"

namespace Tessel::Tool {

// The failure that `exception`, thrown for the private server in `directory`, is: `Unavailable`
// when a server that is set up does not run as it should, `Configuration` when it cannot be set up.
Failure localFailure(const Exception& exception, const std::string& directory);

// The default directory. Throws Failure when there is none.
std::string defaultLocalDirectory();

// Calls `use` with the private server in `directory`, and throws its failures as Failure.
template <class Use>
auto withLocalServer(const std::string& directory, Use use) {
  try {
    LocalServer server(directory);
    return use(server);
  } catch (const Exception& exception) {
    throw localFailure(exception, directory);
  }
}

}  // namespace Tessel::Tool

#endif
