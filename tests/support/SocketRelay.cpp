// SocketRelay: one thread that accepts, one for each connection.
#include "support/SocketRelay.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace Tessel::Testing {

namespace {

// How often a waiting thread looks whether it shall end, in milliseconds.
constexpr int s_look = 5;

sockaddr_un s_address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error("socket path too long");
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

// An address of 127.0.0.1; port 0 means any that is free.
sockaddr_in s_loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A connection to the server at `place`, a path or "127.0.0.1:PORT", or -1.
int s_connected(const std::string& place) {
  const auto open = [](const auto& address) {
    const auto* const any = reinterpret_cast<const sockaddr*>(&address);
    const int made = socket(any->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(made, any, sizeof(address)) == 0) return made;
    close(made);
    return -1;
  };
  if (place.starts_with('/')) return open(s_address(place));
  return open(s_loopback(std::stoi(place.substr(place.find(':') + 1))));
}

std::size_t s_index(SocketRelay::Direction direction) {
  return direction == SocketRelay::Direction::ToServer ? 0 : 1;
}

}  // namespace

SocketRelay::SocketRelay(const std::string& path, const std::string& serverPath)
    : m_path(path),
      m_serverPaths{serverPath},
      m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_un address = s_address(path);
  if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(m_listener, SOMAXCONN) != 0) {
    throw std::runtime_error("relay cannot listen on " + path);
  }
  m_acceptor = std::thread([this] { accept(); });
}

SocketRelay::SocketRelay(std::vector<std::string> servers, Forger forger)
    : m_serverPaths(std::move(servers)),
      m_forger(std::move(forger)),
      m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = s_loopback(0);
  socklen_t size = sizeof(address);
  if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      listen(m_listener, SOMAXCONN) != 0) {
    throw std::runtime_error("relay cannot listen on 127.0.0.1");
  }
  m_path = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  m_acceptor = std::thread([this] { accept(); });
}

SocketRelay::~SocketRelay() {
  m_stopping = true;
  if (m_acceptor.joinable()) m_acceptor.join();
  for (std::thread& thread : m_relays) thread.join();
  close(m_listener);
  unlink(m_path.c_str());
}

void SocketRelay::goDown() {
  m_stopping = true;
  m_acceptor.join();
  close(std::exchange(m_listener, -1));
  for (std::thread& thread : std::exchange(m_relays, {})) thread.join();
}

void SocketRelay::cutAfter(Direction direction, std::size_t bytes, bool thenRefuse) {
  m_hasCut = false;
  m_thenRefuse = thenRefuse;
  m_left[s_index(direction)] = bytes;
}

bool SocketRelay::endCut() {
  m_left[0] = s_noCut;
  m_left[1] = s_noCut;
  m_thenRefuse = false;
  return m_hasCut.exchange(false);
}

std::vector<std::string> SocketRelay::statements() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_statements;
}

std::string SocketRelay::said() const {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_said;
}

std::size_t SocketRelay::passed(Direction direction) const {
  return m_passed[s_index(direction)];
}

void SocketRelay::accept() {
  while (!m_stopping) {
    pollfd waiting{m_listener, POLLIN, 0};
    if (poll(&waiting, 1, s_look) != 1) continue;
    const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    const std::string& path =
        m_serverPaths[static_cast<std::size_t>(m_connections++) % m_serverPaths.size()];
    if (m_hasCut && m_thenRefuse) {
      close(client);
      continue;
    }
    m_relays.emplace_back([this, client, &path] { relay(client, path); });
  }
}

void SocketRelay::relay(int client, const std::string& place) {
  const int server = s_connected(place);
  bool open = server >= 0;
  bool isFirst = true;
  std::string packets;  // From the client, as far as they are not looked at.
  while (open && !m_stopping) {
    std::array<pollfd, 2> waiting{{{client, POLLIN, 0}, {server, POLLIN, 0}}};
    // What is held stays in the server's socket.
    if (poll(waiting.data(), m_held ? 1 : 2, s_look) <= 0) continue;
    if (waiting[0].revents != 0) open = pass(client, server, Direction::ToServer, packets);
    if (!open || waiting[1].revents == 0) continue;
    open = pass(server, client, Direction::ToClient, packets, isFirst);
    isFirst = false;
  }
  close(client);
  if (server >= 0) close(server);
}

bool SocketRelay::pass(int from, int to, Direction direction, std::string& packets, bool isFirst) {
  std::string bytes(16384, '\0');
  const ssize_t count = recv(from, bytes.data(), bytes.size(), 0);
  if (count <= 0) return false;
  bytes.resize(static_cast<std::size_t>(count));
  if (isFirst && m_forger) m_forger(bytes);
  bool cut = false;
  bytes.resize(allowed(direction, bytes.size(), cut));
  m_passed[s_index(direction)] += bytes.size();
  if (direction == Direction::ToServer) {
    packets += bytes;
    recordStatements(packets);
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_said += bytes;
  }
  std::string_view rest = bytes;
  while (!rest.empty()) {
    const ssize_t sent = send(to, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(sent));
  }
  return !cut;
}

// A packet is three bytes of length, one of sequence number, and what it carries: for a statement
// the command byte 3 and the text. Commands start a new sequence.
void SocketRelay::recordStatements(std::string& packets) {
  constexpr std::size_t header = 4;
  constexpr char query = 3;
  while (packets.size() >= header) {
    const auto byte = [&packets](std::size_t i) {
      return static_cast<std::size_t>(static_cast<unsigned char>(packets[i]));
    };
    const std::size_t length = byte(0) | byte(1) << 8U | byte(2) << 16U;
    if (packets.size() < header + length) return;
    if (packets[3] == 0 && length > 1 && packets[header] == query) {
      const std::lock_guard<std::mutex> guard(m_mutex);
      m_statements.push_back(packets.substr(header + 1, length - 1));
    }
    packets.erase(0, header + length);
  }
}

// How much of `size` bytes may pass; sets `cut` when the connection breaks behind them.
std::size_t SocketRelay::allowed(Direction direction, std::size_t size, bool& cut) {
  std::atomic<std::size_t>& left = m_left[s_index(direction)];
  std::size_t limit = left;
  while (limit != s_noCut) {
    cut = size >= limit;
    if (left.compare_exchange_weak(limit, cut ? s_noCut : limit - size)) {
      if (cut) m_hasCut = true;
      return cut ? limit : size;
    }
  }
  cut = false;
  return size;
}

}  // namespace Tessel::Testing
