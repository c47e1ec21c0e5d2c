// Reads the values of the option `--listen`.
#include "serve/base/ListenAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

using Tool::ExitCode;
using Tool::Failure;

// The permissions that a file can have, without set-id and sticky bits.
constexpr unsigned int s_allPermissions = 0777;

// Characters of a path, which needs a NUL after it.
constexpr std::size_t s_maxPath = sizeof(sockaddr_un::sun_path) - 1;

constexpr char s_unixExample[] =
    "write unix:/run/tsl/map.sock, or unix:/run/tsl/map.sock,mode=0660,group=postfix";
constexpr char s_inetExample[] = "write inet:127.0.0.1:8025, or inet:[::1]:8025";
constexpr char s_kindExample[] =
    "write unix:/run/tsl/map.sock or inet:127.0.0.1:8025; with unix-line: or inet-line: it speaks "
    "the line protocol, with policy:unix: or policy:inet: that of Postfix's policies";

constexpr std::string_view s_policy = "policy:";
constexpr std::string_view s_line = "-line";

// One value of the option, for messages about it.
class Reader {
 public:
  explicit Reader(std::string_view value) : m_value(value) {}

  [[nodiscard]] ListenAddress read() const;

 private:
  [[noreturn]] void fail(const std::string& why, const char* example) const {
    throw Failure(ExitCode::Usage, "--listen '" + std::string(m_value) + "'", why, example);
  }
  void readUnix(std::string_view text, ListenAddress& address) const;
  void readUnixOption(std::string_view option, ListenAddress& address) const;
  void readInet(std::string_view text, ListenAddress& address) const;
  [[nodiscard]] std::uint16_t portOf(std::string_view text) const;
  [[nodiscard]] mode_t modeOf(std::string_view text) const;

  std::string_view m_value;
};

// The text before the first `separator` of `rest`, which becomes what is after it.
std::string_view s_cut(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view first = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return first;
}

// The whole of `text` as a number without sign in `base`; nothing when it is not one or too large.
std::optional<unsigned int> s_number(std::string_view text, int base) {
  unsigned int number{};
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || behind != end) return std::nullopt;
  return number;
}

bool s_isNumericHost(const std::string& host, int family) {
  in6_addr address{};  // Has room for IPv4 too.
  return ::inet_pton(family, host.c_str(), &address) == 1;
}

ListenAddress Reader::read() const {
  if (std::any_of(m_value.begin(), m_value.end(),
                  [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; })) {
    fail("it has control characters", s_kindExample);
  }
  ListenAddress address;
  std::string_view rest = m_value;
  const bool isPolicy = rest.starts_with(s_policy);
  if (isPolicy) rest.remove_prefix(s_policy.size());
  const bool hasColon = rest.find(':') != std::string_view::npos;
  std::string_view kind = s_cut(rest, ':');
  if (isPolicy) address.protocol = Protocol::Policy;
  if (kind.ends_with(s_line) && !isPolicy) {
    address.protocol = Protocol::Lines;
    kind.remove_suffix(s_line.size());
  }
  if (hasColon && kind == "unix") {
    address.kind = ListenAddress::Kind::Unix;
    readUnix(rest, address);
  } else if (hasColon && kind == "inet") {
    address.kind = ListenAddress::Kind::Inet;
    readInet(rest, address);
  } else {
    fail("it does not begin with a kind of socket", s_kindExample);
  }
  return address;
}

void Reader::readUnix(std::string_view text, ListenAddress& address) const {
  const std::string_view path = s_cut(text, ',');
  if (path.empty()) fail("the path is missing", s_unixExample);
  if (path.front() != '/') {
    fail("the path is relative, and where it leads depends on where the service is started",
         s_unixExample);
  }
  if (path.back() == '/') fail("the path names a directory", s_unixExample);
  if (path.size() > s_maxPath) {
    fail("the path has " + std::to_string(path.size()) + " bytes; a socket's has at most " +
             std::to_string(s_maxPath),
         s_unixExample);
  }
  address.path = path;
  const bool endsWithComma = m_value.back() == ',';
  while (!text.empty()) readUnixOption(s_cut(text, ','), address);
  if (endsWithComma) fail("there is nothing after the last comma", s_unixExample);
}

void Reader::readUnixOption(std::string_view option, ListenAddress& address) const {
  std::string_view text = option;
  const std::string_view name = s_cut(text, '=');
  if (name == "mode") {
    if (address.mode) fail("mode is given twice", s_unixExample);
    address.mode = modeOf(text);
  } else if (name == "group") {
    if (!address.group.empty()) fail("group is given twice", s_unixExample);
    if (text.empty()) fail("group has no name", s_unixExample);
    address.group = text;
  } else {
    fail("'" + std::string(option) + "' is neither mode=NUMBER nor group=NAME", s_unixExample);
  }
}

void Reader::readInet(std::string_view text, ListenAddress& address) const {
  const bool isV6 = !text.empty() && text.front() == '[';
  if (isV6) {
    text.remove_prefix(1);
    if (text.find(']') == std::string_view::npos) fail("the ']' is missing", s_inetExample);
    address.host = s_cut(text, ']');
    if (text.empty() || text.front() != ':') fail("the port is missing", s_inetExample);
    text.remove_prefix(1);
  } else {
    if (text.find(':') == std::string_view::npos) fail("the port is missing", s_inetExample);
    address.host = s_cut(text, ':');
    if (text.find(':') != std::string_view::npos) {
      fail("an IPv6 address needs brackets", s_inetExample);
    }
  }
  if (!s_isNumericHost(address.host, isV6 ? AF_INET6 : AF_INET)) {
    fail("'" + address.host + "' is not an " + (isV6 ? "IPv6" : "IPv4") +
             " address; names are not looked up",
         s_inetExample);
  }
  address.port = portOf(text);
}

std::uint16_t Reader::portOf(std::string_view text) const {
  const std::optional<unsigned int> port = s_number(text, 10);
  if (!port || *port > UINT16_MAX) {
    fail("'" + std::string(text) + "' is not a port; ports go from 0 to 65535", s_inetExample);
  }
  return static_cast<std::uint16_t>(*port);
}

mode_t Reader::modeOf(std::string_view text) const {
  const std::optional<unsigned int> mode = s_number(text, 8);
  if (!mode || *mode > s_allPermissions) {
    fail("'" + std::string(text) + "' is not a mode; modes are octal, from 0 to 0777",
         s_unixExample);
  }
  return *mode;
}

template <class Address>
NativeAddress s_native(const Address& address) {
  NativeAddress native;
  std::memcpy(&native.storage, &address, sizeof(address));
  native.size = sizeof(address);
  return native;
}

}  // namespace

ListenAddress parseListenAddress(std::string_view value) {
  return Reader(value).read();
}

NativeAddress nativeAddress(const ListenAddress& address) {
  if (address.kind == ListenAddress::Kind::Unix) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    address.path.copy(name.sun_path, s_maxPath);
    return s_native(name);
  }
  if (address.host.find(':') == std::string::npos) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(address.port);
    inet_pton(AF_INET, address.host.c_str(), &v4.sin_addr);
    return s_native(v4);
  }
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(address.port);
  inet_pton(AF_INET6, address.host.c_str(), &v6.sin6_addr);
  return s_native(v6);
}

}  // namespace Tessel::Serve
