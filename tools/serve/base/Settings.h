// How the lookup service works, as its command line says.
#ifndef TSL_TOOLS_SERVE_BASE_SETTINGS_H
#define TSL_TOOLS_SERVE_BASE_SETTINGS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/sizes.h"
#include "serve/base/ListenAddress.h"
#include "serve/base/Network.h"

namespace Tessel::Serve {

using namespace std::chrono_literals;

// The clock of ages and time-outs.
using Clock = std::chrono::steady_clock;

// What is done with the extension of `user+extension@domain` when only `user@domain` is found.
enum class ExtensionRule {
  Keep,  // Each address of the answer gets it.
  Drop,  // The answer is that of `user@domain`.
  Off,   // Nothing is found.
};

// A value; see tsl-address-map-serve(8) for what each means.
struct Settings {
  std::vector<ListenAddress> listen;
  std::optional<ListenAddress> metrics;
  std::vector<std::string> tables;  // Store names; empty for all tables.
  std::chrono::milliseconds refresh = 1s;
  std::optional<std::chrono::milliseconds> stale = 1h;  // Nothing: forever.
  // A replica that is further behind is not read; nothing: none is asked for that.
  std::optional<std::chrono::milliseconds> maxLag;
  std::string snapshot;  // Directory; empty for none.
  // Shortest time between two snapshots of a table. Not an option.
  std::chrono::milliseconds snapshotInterval = 10s;
  std::string countUse;  // File with the aliases that were asked for; empty for none.
  std::size_t maxReply = 100000;
  std::size_t page = 500;
  std::size_t maxRequest = 64_KiB;
  std::size_t maxMemory = 256_MiB;  // Bytes for answers and pages.
  ExtensionRule extension = ExtensionRule::Keep;
  std::string delimiter = "+";
  bool localNames = false;  // Members without a domain are given.
  // An alias `*@domain` gets the mail of names of the domain that nobody has.
  bool catchAll = false;
  // A whole-domain mask has a private address only if that is a mailbox or an alias.
  bool knownMaskUsers = false;
  bool leaveOutDisabled = false;  // Disabled users get no mail through aliases and masks.
  std::string loginDomain;        // Of logins without one; empty for none.
  std::vector<Network> trust;  // Who comes from there counts as logged in, as nobody in particular.
  std::string policyText = "only some people may write to {address}";
  unsigned int workers = 1;
  std::size_t maxConnections = 10000;
  std::chrono::milliseconds idleTimeout = 1h;
  std::chrono::milliseconds requestTimeout = 30s;
  std::chrono::milliseconds drain = 5s;
};

}  // namespace Tessel::Serve

#endif
