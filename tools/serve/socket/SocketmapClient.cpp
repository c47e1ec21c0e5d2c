// Asks a lookup service as mail servers do.
#include "serve/socket/SocketmapClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include "base/sizes.h"
#include "failure/Failure.h"
#include "serve/socket/Netstring.h"

namespace Tessel::Serve {

namespace {

constexpr timeval s_replyPatience{30, 0};
// Longer replies are none: --max-reply allows no more.
constexpr std::size_t s_longestReply = 100000000;

std::string s_nameOf(const ListenAddress& address) {
  if (address.kind == ListenAddress::Kind::Unix) return "unix:" + address.path;
  return "inet:" + address.host + ":" + std::to_string(address.port);
}

}  // namespace

SocketmapClient::SocketmapClient(const ListenAddress& address)
    : m_name(s_nameOf(address)),
      m_descriptor(socket(nativeAddress(address).family(), SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (address.protocol != Protocol::Netstrings) {
    throw Tool::Failure(Tool::ExitCode::Usage, "--from", "it is an address of another protocol",
                        "name a socket of the service that begins with unix: or inet:");
  }
  setsockopt(m_descriptor.get(), SOL_SOCKET, SO_RCVTIMEO, &s_replyPatience,
             sizeof(s_replyPatience));
  setsockopt(m_descriptor.get(), SOL_SOCKET, SO_SNDTIMEO, &s_replyPatience,
             sizeof(s_replyPatience));
  const NativeAddress native = nativeAddress(address);
  if (connect(m_descriptor.get(), native.get(), native.size) != 0) {
    fail(std::generic_category().message(errno));
  }
}

void SocketmapClient::fail(const std::string& why) const {
  throw Tool::Failure(Tool::ExitCode::Unavailable, "the service at " + m_name, why,
                      "see whether it runs and listens there, and who may connect");
}

std::string SocketmapClient::ask(const std::string& map, const std::string& key) {
  std::string request;
  appendNetstring(request, map + " " + key);
  for (std::string_view left = request; !left.empty();) {
    const ssize_t sent = send(m_descriptor.get(), left.data(), left.size(), MSG_NOSIGNAL);
    if (sent == -1) fail(std::generic_category().message(errno));
    left.remove_prefix(static_cast<std::size_t>(sent));
  }
  while (true) {
    const NetstringFrame frame = parseNetstring(m_received, s_longestReply);
    if (frame.state == NetstringFrame::State::Frame) {
      std::string reply(frame.payload);
      m_received.erase(0, frame.consumed);
      return reply;
    }
    if (frame.state != NetstringFrame::State::NeedMore) fail("it does not speak socketmap");
    std::array<char, 64_KiB> bytes;
    const ssize_t size = recv(m_descriptor.get(), bytes.data(), bytes.size(), 0);
    if (size == 0) fail("it closed the connection");
    if (size == -1) fail(std::generic_category().message(errno));
    m_received.append(bytes.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace Tessel::Serve
