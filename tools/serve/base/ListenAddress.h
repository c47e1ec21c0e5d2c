// Where the lookup service listens, as its option `--listen` says.
#ifndef TSL_TOOLS_SERVE_BASE_LISTENADDRESS_H
#define TSL_TOOLS_SERVE_BASE_LISTENADDRESS_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tessel::Serve {

// What is spoken on a connection: netstrings or lines with the requests of maps, or the policy
// delegation protocol of Postfix.
enum class Protocol { Netstrings, Lines, Policy };

// A place to listen on. A value.
struct ListenAddress {
  enum class Kind { Unix, Inet };

  Kind kind = Kind::Unix;
  Protocol protocol = Protocol::Netstrings;

  // Of a Unix socket: its absolute path, which fits into a socket address with its NUL, and what
  // the option says about the file: permissions, and a group by name (empty for none).
  std::string path;
  std::optional<mode_t> mode;
  std::string group;

  // Of a network socket: a numeric IPv4 or IPv6 address, without brackets; 0 lets the system choose
  // the port.
  std::string host;
  std::uint16_t port{};
};

// Reads "unix:/PATH[,mode=0660][,group=NAME]" or "inet:HOST:PORT", with "inet:[::1]:PORT" for IPv6;
// "unix-line:" and "inet-line:" for lines, and "policy:" before either for policies. Throws
// Tool::Failure, ExitCode::Usage, which says what is wrong and gives an example. Does not look at
// files, groups or the network. Any thread.
ListenAddress parseListenAddress(std::string_view value);

// An address as the socket calls of the system take it. A value.
struct NativeAddress {
  [[nodiscard]] const sockaddr* get() const noexcept {
    return reinterpret_cast<const sockaddr*>(&storage);
  }
  [[nodiscard]] int family() const noexcept { return storage.ss_family; }

  sockaddr_storage storage{};
  socklen_t size{};
};

// `address` for the system. Any thread.
NativeAddress nativeAddress(const ListenAddress& address);

}  // namespace Tessel::Serve

#endif
