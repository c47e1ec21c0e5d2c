// The lookup service as a whole: its sockets, threads and signals.
#ifndef TSL_TOOLS_SERVE_SERVICE_H
#define TSL_TOOLS_SERVE_SERVICE_H

#include "serve/base/Log.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// Serves until SIGTERM or SIGINT, which let what was asked be answered first; SIGHUP has all tables
// read anew, over new connections. Tells systemd what happens (see sd_notify(3)). Throws
// Tool::Failure when it cannot start. One thread, which must be the one of the process then.
void serve(const Settings& settings, Log& log);

}  // namespace Tessel::Serve

#endif
