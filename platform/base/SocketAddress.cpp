// SocketAddress, and its reading from a connected socket.
#include "base/SocketAddress.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <system_error>
#include <utility>

#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel {

namespace {

// Longest path that fits sockaddr_un with its final NUL.
constexpr std::size_t s_maxPath = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void s_fail(const char* context, const std::string& detail, int line = sourceLine()) {
  throw Exception(context, 4, "SocketAddress", line).stringParameter(detail);
}

}  // namespace

SocketAddress::SocketAddress(Family family, std::string host, std::uint16_t port)
    : m_family(family), m_host(std::move(host)), m_port(port) {}

SocketAddress SocketAddress::ip(const std::string& host, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
    s_fail("SocketAddress::ip", "Not a numeric IP address: " + host);
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
  return {found->ai_family == AF_INET6 ? Family::IPv6 : Family::IPv4, host, port};
}

SocketAddress SocketAddress::unixPath(const std::string& path) {
  if (path.empty()) s_fail("SocketAddress::unixPath", "Empty socket path");
  if (path.size() > s_maxPath) {
    s_fail("SocketAddress::unixPath",
           "Socket path longer than " + std::to_string(s_maxPath) + " bytes: " + path);
  }
  return {Family::Unix, path, 0};
}

SocketAddress SocketAddress::peerOf(int descriptor) {
  sockaddr_storage storage{};
  socklen_t length = sizeof(storage);
  auto* address = reinterpret_cast<sockaddr*>(&storage);
  if (getpeername(descriptor, address, &length) != 0) {
    s_fail("SocketAddress::peerOf", std::generic_category().message(errno));
  }
  if (storage.ss_family == AF_UNIX) {
    return unixPath(reinterpret_cast<const sockaddr_un*>(&storage)->sun_path);
  }
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  const int result = getnameinfo(address, length, host.data(), host.size(), port.data(),
                                 port.size(), NI_NUMERICHOST | NI_NUMERICSERV);
  if (result != 0) s_fail("SocketAddress::peerOf", gai_strerror(result));
  return ip(host.data(), static_cast<std::uint16_t>(std::stoi(port.data())));
}

std::string SocketAddress::text() const {
  if (m_family == Family::IPv4) return m_host + ":" + std::to_string(m_port);
  if (m_family == Family::IPv6) return "[" + m_host + "]:" + std::to_string(m_port);
  return m_host;
}

}  // namespace Tessel
