// Networks whose hosts are trusted, as the option `--trust` says.
#ifndef TSL_TOOLS_SERVE_BASE_NETWORK_H
#define TSL_TOOLS_SERVE_BASE_NETWORK_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tessel::Serve {

// The addresses that have the first `bits` bits of `address`, which is one of IPv6; those of IPv4
// are mapped to it (::ffff:192.0.2.1). A value.
struct Network {
  std::array<std::uint8_t, 16> address{};
  unsigned int bits{};
};

// Reads the value `text` of the option `option`: "192.0.2.0/24", "2001:db8::/32", or one address.
// Throws Tool::Failure, ExitCode::Usage, also for bits behind the network's. Any thread.
Network parseNetwork(const std::string& option, const std::string& text);

// True when the numeric address `host` is in one of `networks`. Any thread.
bool isIn(const std::vector<Network>& networks, std::string_view host);

}  // namespace Tessel::Serve

#endif
