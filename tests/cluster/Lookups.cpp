// Looks aliases up as fast as one mail server does, and counts what goes wrong. Every line on
// standard input is answered by a line with the counts and times since the last one.
// Usage: cluster_lookups COUNT [SOCKET]
// There must be the aliases `s0@example.com` to `s(COUNT-1)@example.com`, each with the one member
// `m0@example.com` and so on. With SOCKET they are asked from the service that listens there,
// otherwise from the library, in stores that are opened again and again.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "AddressMapDb.h"
#include "base/Exception.h"
#include "failure/Failure.h"
#include "serve/base/ListenAddress.h"
#include "serve/socket/SocketmapClient.h"

namespace Tessel {
namespace {

using Clock = std::chrono::steady_clock;

// Lookups in one store of the library: as many as one message needs, so that most ask the database.
constexpr int s_lookupsPerStore = 20;
// Pause after a lookup. The service answers some hundred per second then.
constexpr std::chrono::milliseconds s_pause{2};

enum class Outcome { Right, Wrong, NotThere, Failed };

std::string s_address(char first, int number) {
  return first + std::to_string(number) + "@example.com";
}

class Service {
 public:
  explicit Service(std::string socket) : m_socket(std::move(socket)) {}

  Outcome look(int number) {
    try {
      if (!m_client) m_client.emplace(Serve::parseListenAddress("unix:" + m_socket));
      const std::string reply = m_client->ask("alias", s_address('s', number));
      if (reply == "OK " + s_address('m', number)) return Outcome::Right;
      if (reply.starts_with("NOTFOUND")) return Outcome::NotThere;
      return reply.starts_with("OK") ? Outcome::Wrong : Outcome::Failed;
    } catch (const Tool::Failure&) {
      m_client.reset();
      return Outcome::Failed;
    }
  }

 private:
  const std::string m_socket;
  std::optional<Serve::SocketmapClient> m_client;
};

class Library {
 public:
  Outcome look(int number) {
    try {
      if (!m_store || m_left-- == 0) {
        m_store.emplace(AddressMapDb::MySQL, true);
        m_left = s_lookupsPerStore;
      }
      const auto got = m_store->aliasDb("").expandAlias(
          EmailAddress::rfc5321Parse(s_address('s', number), false));
      if (got.empty()) return Outcome::NotThere;
      return got.size() == 1 && got.begin()->address() == s_address('m', number) ? Outcome::Right
                                                                                 : Outcome::Wrong;
    } catch (const Exception&) {
      m_store.reset();
      return Outcome::Failed;
    }
  }

 private:
  std::optional<AddressMapDb> m_store;
  int m_left = 0;
};

// What happened since the last report.
class Counts {
 public:
  void add(Outcome outcome, Clock::duration time) {
    ++m_counts[static_cast<std::size_t>(outcome)];
    m_times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(time).count());
  }

  void report() {
    std::sort(m_times.begin(), m_times.end());
    std::cout << "{\"lookups\":" << m_times.size() << ",\"wrong\":" << m_counts[1]
              << ",\"notThere\":" << m_counts[2] << ",\"failed\":" << m_counts[3]
              << ",\"median\":" << quantile(0.5) << ",\"slow\":" << quantile(0.999)
              << ",\"slowest\":" << quantile(1) << "}" << std::endl;
    *this = {};
  }

 private:
  // In microseconds.
  [[nodiscard]] long quantile(double part) const {
    if (m_times.empty()) return 0;
    const auto last = static_cast<double>(m_times.size() - 1);
    return m_times[static_cast<std::size_t>(last * part)];
  }

  std::array<long, 4> m_counts{};
  std::vector<long> m_times;
};

// True when the caller wants a report; ends the program when the caller is gone.
bool s_isAsked() {
  pollfd waiting{STDIN_FILENO, POLLIN, 0};
  if (poll(&waiting, 1, 0) == 0) return false;
  std::string line;
  if (!std::getline(std::cin, line)) _exit(0);
  return true;
}

template <class Source>
[[noreturn]] void s_run(Source source, int count) {
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> any(0, count - 1);
  for (Counts counts;;) {
    const int number = any(random);
    const Clock::time_point start = Clock::now();
    const Outcome outcome = source.look(number);
    counts.add(outcome, Clock::now() - start);
    if (s_isAsked()) counts.report();
    std::this_thread::sleep_for(s_pause);
  }
}

}  // namespace
}  // namespace Tessel

int main(int argc, char* argv[]) {
  if (argc < 2) {
    std::cerr << "Usage: cluster_lookups COUNT [SOCKET]\n";
    return 64;
  }
  const int count = std::stoi(argv[1]);
  if (argc > 2) Tessel::s_run(Tessel::Service(argv[2]), count);
  Tessel::s_run(Tessel::Library(), count);
}
