// The address of a stream socket: IPv4, IPv6 or the path of a Unix socket.
#ifndef TSL_BASE_SOCKETADDRESS_H
#define TSL_BASE_SOCKETADDRESS_H

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace Tessel {

// An immutable value. Any thread may read one object.
class TSL_EXPORT SocketAddress {
 public:
  enum class Family { None, IPv4, IPv6, Unix };

  // No address: family None.
  SocketAddress() = default;

  // Address of an IP host. `host` is a numeric IPv4 (RFC 1123, dotted) or IPv6 address (RFC 4291,
  // without brackets, with a zone where needed). Throws Exception, code 4, when it is neither.
  static SocketAddress ip(const std::string& host, std::uint16_t port);
  // Path of a Unix socket. Throws Exception, code 4, when it is empty or longer than 107 bytes.
  static SocketAddress unixPath(const std::string& path);
  // Address of the peer of the connected socket `descriptor`. Throws Exception, code 4, with the
  // system's reason when it has none.
  static SocketAddress peerOf(int descriptor);

  [[nodiscard]] Family family() const noexcept { return m_family; }
  // Numeric host of an IP address, path of a Unix socket, empty for None.
  [[nodiscard]] const std::string& host() const noexcept { return m_host; }
  // Port of an IP address, otherwise 0.
  [[nodiscard]] std::uint16_t port() const noexcept { return m_port; }
  // "192.0.2.1:3306", "[2001:db8::1]:3306", the path of a Unix socket, or empty.
  [[nodiscard]] std::string text() const;

  friend bool operator==(const SocketAddress&, const SocketAddress&) = default;

 private:
  SocketAddress(Family family, std::string host, std::uint16_t port);

  Family m_family = Family::None;
  std::string m_host;
  std::uint16_t m_port = 0;
};

}  // namespace Tessel

#endif
