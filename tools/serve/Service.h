// The lookup service as a whole: its sockets, threads and signals.
#ifndef TSL_TOOLS_SERVE_SERVICE_H
#define TSL_TOOLS_SERVE_SERVICE_H

#include "serve/base/Log.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// Serves until SIGTERM or SIGINT, after it has answered what was asked; SIGHUP rereads all tables
// over new connections. Notifies systemd of its state (see sd_notify(3)). Throws Tool::Failure when
// it cannot start. One thread, which must then be the only one of the process.
void serve(const Settings& settings, Log& log);

}  // namespace Tessel::Serve

#endif
