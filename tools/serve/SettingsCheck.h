// What is wrong with the settings of the lookup service, for an administrator who is about to start
// or reload it.
#ifndef TSL_TOOLS_SERVE_SETTINGSCHECK_H
#define TSL_TOOLS_SERVE_SETTINGSCHECK_H

#include <vector>

#include "failure/Failure.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// What keeps the service from starting with `settings`, or from doing what they say, each with what
// to do; empty when nothing does. Looks at the sockets, the snapshot directory, the option file
// that TSL_DATABASE_OPTION_FILE names and the rights on the configuration, as this user. Writes
// nothing, and asks neither the database nor a service that runs: an outage is no fault of the
// settings. One thread.
std::vector<Tool::Failure> faultsOf(const Settings& settings);

}  // namespace Tessel::Serve

#endif
