// HostList: reading the option, resolving names, and the order of tries.
#include "database/HostList.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <optional>
#include <string_view>

namespace Tessel::Database {

namespace {

constexpr char s_localhost[] = "localhost";

std::string_view s_trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string s_numeric(const addrinfo& found) {
  std::array<char, NI_MAXHOST> text{};
  const int failed = getnameinfo(found.ai_addr, found.ai_addrlen, text.data(), text.size(), nullptr,
                                 0, NI_NUMERICHOST);
  return failed == 0 ? text.data() : "";
}

}  // namespace

std::string Host::text() const {
  if (name.empty()) return "";
  const bool isBracketed = name.find(':') != std::string::npos;
  const std::string shown = isBracketed ? "[" + name + "]" : name;
  return port == 0 ? shown : shown + ":" + std::to_string(port);
}

Host parseHost(std::string_view text) {
  Host host;
  std::string_view port;
  const std::size_t colon = text.rfind(':');
  const std::size_t end = text.starts_with('[') ? text.find(']') : std::string_view::npos;
  if (end != std::string_view::npos) {
    host.name = text.substr(1, end - 1);
    if (text.substr(end + 1).starts_with(':')) port = text.substr(end + 2);
  } else if (colon != std::string_view::npos && text.find(':') == colon) {
    host.name = text.substr(0, colon);
    port = text.substr(colon + 1);
  } else {
    host.name = text;
  }
  std::from_chars(port.data(), port.data() + port.size(), host.port);
  return host;
}

std::vector<Host> hostsOf(const std::vector<Option>& options) {
  const std::string list = lastValue(options, {"host", "servername"}).value_or("");
  std::vector<Host> hosts;
  for (std::string_view rest = list; !rest.empty();) {
    const std::string_view item = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(rest.size(), item.size() + 1));
    if (!s_trimmed(item).empty()) hosts.push_back(parseHost(s_trimmed(item)));
  }
  // Over which way "localhost" is reached depends on further options.
  const bool isLocal = hosts.size() == 1 && hosts[0].port == 0 && hosts[0].name == s_localhost;
  if (hosts.empty() || isLocal) return {Host()};
  return hosts;
}

bool isDefault(const std::vector<Host>& hosts) {
  return hosts.size() == 1 && hosts[0].name.empty();
}

std::vector<Host> resolved(const std::vector<Host>& hosts) {
  std::vector<Host> places;
  for (const Host& host : hosts) {
    const std::size_t before = places.size();
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (!host.name.empty() && getaddrinfo(host.name.c_str(), nullptr, &hints, &list) == 0) {
      const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
      for (const addrinfo* next = list; next != nullptr; next = next->ai_next) {
        const std::string address = s_numeric(*next);
        if (!address.empty()) places.push_back({address, host.port});
      }
    }
    if (places.size() == before) places.push_back(host);
  }
  return places;
}

std::vector<Attempt> attemptsAt(const std::vector<Host>& hosts,
                                const std::set<std::string>& avoided,
                                HostHealth::Clock::time_point now) {
  std::vector<Attempt> good;
  std::vector<Attempt> others;
  std::vector<Attempt> last;
  std::optional<Attempt> probe;
  for (const Host& host : hosts) {
    const HostHealth::State state = HostHealth::stateOf(host.text(), now);
    if (avoided.contains(host.text())) {
      last.push_back({&host, false});
      continue;
    }
    (state == HostHealth::State::Good ? good : others).push_back({&host, false});
    if (state == HostHealth::State::Due && !probe) probe = Attempt{&host, true};
  }
  // Turn by turn, where all fail again and again.
  std::stable_sort(others.begin(), others.end(), [](const Attempt& one, const Attempt& other) {
    return HostHealth::dueTime(one.host->text()) < HostHealth::dueTime(other.host->text());
  });
  std::vector<Attempt> attempts;
  // Where no other one works, it is worth the whole time.
  if (probe && !good.empty()) attempts.push_back(*probe);
  attempts.insert(attempts.end(), good.begin(), good.end());
  attempts.insert(attempts.end(), others.begin(), others.end());
  attempts.insert(attempts.end(), last.begin(), last.end());
  return attempts;
}

}  // namespace Tessel::Database
