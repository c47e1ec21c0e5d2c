// The hosts that an option file names, and the order in which a connection tries them. Private to
// this directory.
#ifndef TSL_DATABASE_HOSTLIST_H
#define TSL_DATABASE_HOSTLIST_H

#include <chrono>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "database/HostHealth.h"
#include "database/OptionFile.h"

namespace Tessel::Database {

// A place where the server, or a node of a cluster, may be reached.
struct Host {
  // Name or address without brackets. Empty: the socket or the host that the client library takes
  // from the options by itself.
  std::string name;
  // 0: the one of the options.
  unsigned int port = 0;

  // "name:port", with brackets around an IPv6 address; empty for the default place.
  [[nodiscard]] std::string text() const;
};

// Reads "name", "name:port", "[address]", "[address]:port", or an IPv6 address without brackets.
Host parseHost(std::string_view text);

// The hosts of the option `host`, which may be a list: "a:3306,b,[::1]:3307". Never empty.
std::vector<Host> hostsOf(const std::vector<Option>& options);

// True when the options name no host, or "localhost" alone: the client library chooses the way.
bool isDefault(const std::vector<Host>& hosts);

// `hosts` with each name replaced by its addresses, in the order of the resolver. A name that
// cannot be resolved stays. May wait for the name service.
std::vector<Host> resolved(const std::vector<Host>& hosts);

// One try of opening a connection.
struct Attempt {
  const Host* host;
  // What is left of the time is shared by those who are not.
  bool isProbe;
};

// The order of tries among `hosts`, which must outlive the result: a host that failed some time ago
// gets a short chance, then come those that work, in the order of the list, then all others, that
// host once more among them, the one first whose time is over first. Those in `avoided` (by their
// text) come last.
std::vector<Attempt> attemptsAt(const std::vector<Host>& hosts,
                                const std::set<std::string>& avoided,
                                HostHealth::Clock::time_point now);

}  // namespace Tessel::Database

#endif
