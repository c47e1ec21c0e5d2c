// Networks whose hosts are trusted.
#include "serve/base/Network.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>

#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

using Bytes = std::array<std::uint8_t, 16>;

constexpr unsigned int s_bits = 128;
constexpr unsigned int s_bitsBeforeV4 = 96;

std::optional<Bytes> s_address(const std::string& text) {
  Bytes bytes{};
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return bytes;
  bytes[10] = bytes[11] = 0xff;
  if (inet_pton(AF_INET, text.c_str(), bytes.data() + s_bitsBeforeV4 / 8) == 1) return bytes;
  return std::nullopt;
}

bool s_bit(const Bytes& bytes, unsigned int number) {
  return (unsigned{bytes[number / 8]} >> (7 - number % 8) & 1U) != 0;
}

bool s_isIn(const Network& network, const Bytes& address) {
  for (unsigned int bit = 0; bit < network.bits; ++bit) {
    if (s_bit(address, bit) != s_bit(network.address, bit)) return false;
  }
  return true;
}

// True when no bit is set behind the first `bits`.
bool s_endsIn(const Bytes& address, unsigned int bits) {
  for (unsigned int bit = bits; bit < s_bits; ++bit) {
    if (s_bit(address, bit)) return false;
  }
  return true;
}

}  // namespace

Network parseNetwork(const std::string& option, const std::string& text) {
  const auto fail = [&](const char* why) -> Tool::Failure {
    return {Tool::ExitCode::Usage, option, "'" + text + "' " + why,
            "write 192.0.2.0/24, 2001:db8::/32, or one address"};
  };
  const std::size_t slash = text.find('/');
  const std::string host = text.substr(0, slash);
  const auto address = s_address(host);
  if (!address) throw fail("is not a network");
  const unsigned int first = host.find(':') == std::string::npos ? s_bitsBeforeV4 : 0;
  Network network{*address, s_bits};
  if (slash != std::string::npos) {
    unsigned int bits{};
    const char* const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data() + slash + 1, end, bits);
    if (error != std::errc() || behind != end || bits > s_bits - first) {
      throw fail("has not a number of bits after its '/'");
    }
    network.bits = first + bits;
  }
  if (!s_endsIn(*address, network.bits)) throw fail("has bits set behind those of the network");
  return network;
}

bool isIn(const std::vector<Network>& networks, std::string_view host) {
  if (networks.empty()) return false;
  const auto address = s_address(std::string(host));
  return address && std::any_of(networks.begin(), networks.end(),
                                [&](const Network& network) { return s_isIn(network, *address); });
}

}  // namespace Tessel::Serve
