// The lookup service: a mail server's lookups in it, against the same mail server's lookups in the
// database and against a responder that answers a constant; and the reading of a whole table. All
// processes of a comparison share one core.
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Processes.h"
#include "Rounds.h"
#include "database/Connection.h"
#include "serve/answer/Lookup.h"
#include "serve/image/Table.h"
#include "tables/TextRows.h"

namespace Tessel::Bench {
namespace {

using std::chrono::steady_clock;

// The base table: it is what the service answers from when no table is named.
constexpr char s_table[] = "alias";
constexpr char s_imageTable[] = "alias_large";

// Shares of the rate of the constant responder and of the mail server's own tables, as times.
constexpr double s_mostOfConstant = 1 / 0.8;
constexpr double s_mostOfDatabase = 1 / 2.0;
constexpr double s_mostOfTail = 2;
constexpr double s_mostWalks = 2.5;

// A directory for the sockets and files, gone with the program.
const std::filesystem::path& s_directory() {
  struct Directory {
    Directory() {
      char name[] = "/tmp/tsl-serve-bench-XXXXXX";
      if (mkdtemp(name) == nullptr) throw std::runtime_error("no directory in /tmp");
      path = name;
    }
    ~Directory() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path path;
  };
  static const Directory s_made;
  return s_made.path;
}

std::string s_socket(const std::string& name) {
  return s_directory() / name;
}

// Connects to a Unix socket; -1 when nobody listens.
int s_connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return descriptor;
  }
  close(descriptor);
  return -1;
}

std::string s_request(int i) {
  const std::string text = "alias " + aliasName(i);
  return std::to_string(text.size()) + ":" + text + ",";
}

// Waits until the service that listens on `path` answers the first request with "OK".
void s_waitForAnswers(const std::string& path) {
  const auto end = steady_clock::now() + std::chrono::minutes(2);
  while (steady_clock::now() < end) {
    const int descriptor = s_connect(path);
    if (descriptor != -1) {
      const std::string request = s_request(0);
      char reply[4096];
      const bool isSent = write(descriptor, request.data(), request.size()) > 0;
      const ssize_t size = isSent ? read(descriptor, reply, sizeof(reply)) : 0;
      close(descriptor);
      const std::string_view text(reply, size > 0 ? static_cast<std::size_t>(size) : 0);
      if (text.find(":OK ") != std::string_view::npos) return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  throw std::runtime_error("nobody answers at " + path);
}

// The reply to any of the aliases, but for the numbers in it.
std::string s_constantReply() {
  std::string data = "OK ";
  for (const std::string& member : aliasMembers(0)) data += (data == "OK " ? "" : ",") + member;
  return std::to_string(data.size()) + ":" + data + ",";
}

// Answers each request on each connection of `listener` with a constant, for ever: as little as a
// responder can do.
[[noreturn]] void s_answerConstant(int listener) {
  const int events = epoll_create1(0);
  const auto add = [events](int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(events, EPOLL_CTL_ADD, descriptor, &event);
  };
  add(listener);
  const std::string reply = s_constantReply();
  std::vector<epoll_event> ready(256);
  char buffer[4096];
  while (true) {
    const int count = epoll_wait(events, ready.data(), static_cast<int>(ready.size()), -1);
    for (int i = 0; i < count; ++i) {
      const int descriptor = ready[static_cast<std::size_t>(i)].data.fd;
      if (descriptor == listener) {
        add(accept(listener, nullptr, nullptr));
      } else if (read(descriptor, buffer, sizeof(buffer)) <= 0 ||
                 write(descriptor, reply.data(), reply.size()) <= 0) {
        close(descriptor);
      }
    }
  }
}

// A responder, and who it is.
struct Responder {
  std::string path;
  std::unique_ptr<Process> process;
};

Responder s_startConstant(int number) {
  const std::string path = s_socket("constant" + std::to_string(number));
  unlink(path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, 1024) != 0) {
    throw std::runtime_error("cannot listen on " + path);
  }
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);  // A caller may end without taking its last answer.
    s_answerConstant(listener);
  }
  close(listener);
  return {path, std::make_unique<Process>(child)};
}

Responder s_startService(int number) {
  const std::string path = s_socket("service" + std::to_string(number));
  fillAliasTable(s_table, sizes().rows);
  const pid_t child = spawn({toolPath(), "serve", "--listen", "unix:" + path, "--only", "none"},
                            "/dev/null", "/dev/null");
  Responder service{path, std::make_unique<Process>(child)};
  s_waitForAnswers(path);
  return service;
}

// Services and constant responders that are compared.
constexpr int s_pairs = 6;
// Requests of one side in a round; fewer where other programs must not come between them.
constexpr std::size_t s_requests = 1000;
constexpr std::size_t s_requestsOfTail = 500;

// Aliases that are asked for, again and again: those of a busy mail server.
int s_asked() {
  return std::min(sizes().rows, 20000);
}

// One connection of the load: sends a request as soon as the one before is answered.
struct Caller {
  int descriptor = -1;
  std::size_t next = 0;
  steady_clock::time_point sent;
};

void s_send(Caller& caller) {
  const auto count = static_cast<std::size_t>(s_asked());
  const std::string request = s_request(static_cast<int>(scattered(caller.next++, count)));
  caller.sent = steady_clock::now();
  if (write(caller.descriptor, request.data(), request.size()) < 0) {
    throw std::runtime_error("the connection is cut");
  }
}

// Connections to one responder that stay open, and the times that its answers took.
class Load {
 public:
  Load(const std::string& path, int connections)
      : m_events(epoll_create1(EPOLL_CLOEXEC)), m_callers(static_cast<std::size_t>(connections)) {
    for (std::size_t i = 0; i < m_callers.size(); ++i) {
      m_callers[i].descriptor = s_connect(path);
      m_callers[i].next = i * 1009;
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = i;
      epoll_ctl(m_events, EPOLL_CTL_ADD, m_callers[i].descriptor, &event);
    }
  }
  ~Load() {
    for (const Caller& caller : m_callers) close(caller.descriptor);
    close(m_events);
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  // Asks `count` times over all connections at the same time. Throws std::runtime_error when an
  // answer is wrong or does not come.
  void ask(std::size_t count) {
    m_latencies.clear();
    std::size_t sent = 0;
    for (Caller& caller : m_callers) {
      if (sent++ < count) s_send(caller);
    }
    sent = std::min(sent, count);
    epoll_event ready[128];
    while (m_latencies.size() < count) {
      const int found = epoll_wait(m_events, ready, std::size(ready), 10000);
      require(found > 0);
      for (int i = 0; i < found; ++i) {
        Caller& caller = m_callers[ready[i].data.u64];
        take(caller);
        if (sent++ < count) s_send(caller);
      }
    }
  }

  // Seconds that 99 % of the last answers did not exceed. The first ones, to requests that were all
  // sent before any was answered, do not count.
  double tail() {
    const std::size_t first = std::min(m_callers.size(), m_latencies.size() - 1);
    const std::size_t place = first + (m_latencies.size() - first) * 99 / 100;
    const auto at = [this](std::size_t i) {
      return m_latencies.begin() + static_cast<std::ptrdiff_t>(i);
    };
    std::nth_element(at(first), at(place), m_latencies.end());
    return m_latencies[place];
  }

 private:
  void take(const Caller& caller) {
    char buffer[4096];
    const ssize_t size = read(caller.descriptor, buffer, sizeof(buffer));
    const std::string_view reply(buffer, size > 0 ? static_cast<std::size_t>(size) : 0);
    require(reply.find(":OK ") != std::string_view::npos && reply.back() == ',');
    m_latencies.push_back(std::chrono::duration<double>(steady_clock::now() - caller.sent).count());
  }

  int m_events;
  std::vector<Caller> m_callers;
  std::vector<double> m_latencies;
};

// A service and a constant responder, and who asks them.
struct Pair {
  Pair(int number, int connections)
      : service(s_startService(number)),
        constant(s_startConstant(number)),
        ours(service.path, connections),
        bare(constant.path, connections) {}

  Responder service;
  Responder constant;
  Load ours;
  Load bare;
};

// The sides ask twice, and measure the second time: before that the others were at work, and what
// the responder needs is not in the processor's caches.
Side s_time(Load& load) {
  return [&load](std::size_t count) {
    load.ask(count);
    return measure(Clock::Everyone, [&] { load.ask(count); }) / static_cast<double>(count);
  };
}

Side s_tail(Load& load) {
  return [&load](std::size_t count) {
    load.ask(count);
    measure(Clock::Everyone, [&] { load.ask(count); });
    return load.tail();
  };
}

// Over several pairs: who of the two processes runs first settles itself when they start, and
// changes how many answers come together.
void serveLoad(benchmark::State& state, int connections, bool isTail) {
  const OneCore pinned;
  std::vector<std::unique_ptr<Pair>> pairs;
  std::vector<Sides> sides;
  for (int number = 0; number < s_pairs; ++number) {
    Pair& pair = *pairs.emplace_back(std::make_unique<Pair>(number, connections));
    const auto side = isTail ? &s_tail : &s_time;
    sides.push_back({side(pair.ours), side(pair.bare)});
  }
  const std::string over =
      " over " + std::to_string(connections) + (connections == 1 ? " connection" : " connections");
  Comparison comparison{"service / constant responder, time" + over, s_mostOfConstant};
  comparison.operations = s_requests;
  if (isTail) {
    comparison.name = "service / constant responder, 99th percentile" + over;
    comparison.limit = s_mostOfTail;
    comparison.operations = s_requestsOfTail;
  }
  compare(state, comparison, sides);
}

// Files of the keys to ask for, and of the mail server's own table.
void s_writeFiles() {
  std::ofstream keys(s_directory() / "keys");
  const auto count = static_cast<std::size_t>(s_asked());
  for (std::size_t i = 0; i < count; ++i) {
    keys << aliasName(static_cast<int>(scattered(i, count))) << "\n";
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment any more
  const char* const options = std::getenv("TSL_DATABASE_OPTION_FILE");
  std::ofstream table(s_directory() / "mysql.cf");
  table << "option_file = " << (options == nullptr ? "" : options) << "\noption_group = client\n"
        << "hosts = localhost\nuser = root\ndbname = ts_address_map\n"
        << "query = select members from alias where name = '%s'\n";
  // Names and addresses that need not be looked up, which would take longer than the lookups.
  std::ofstream main(s_directory() / "main.cf");
  main << "compatibility_level = 3.6\nmyhostname = mail.bench.example\n"
       << "mynetworks = 127.0.0.0/8\ninet_interfaces = 127.0.0.1\ninet_protocols = ipv4\n";
}

// Has the mail server's own program ask `table` for the keys, over one connection.
void s_postmap(const std::string& table, const std::string& output) {
  waitFor(spawn({"postmap", "-c", s_directory(), "-q", "-", table}, s_directory() / "keys", output),
          "postmap");
}

// The side that does so. All answers come, which is tried first.
Side s_askingBy(const std::string& table) {
  s_postmap(table, s_directory() / "answers");
  std::ifstream answers(s_directory() / "answers");
  int lines = 0;
  for (std::string line; std::getline(answers, line);) ++lines;
  require(lines == s_asked());
  // Nowhere: the writing of a file is not what is measured.
  return timed(Clock::Everyone, [table](std::size_t) { s_postmap(table, "/dev/null"); });
}

std::string s_socketTable(const Responder& responder) {
  return "socketmap:unix:" + responder.path + ":alias";
}

bool s_succeeds(const std::string& command) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread at this point
  return std::system(command.c_str()) == 0;
}

bool s_hasPostmap(benchmark::State& state) {
  if (s_succeeds("command -v postmap >/dev/null")) return true;
  state.SkipWithError("postmap is not installed");
  return false;
}

void servePostmapConstant(benchmark::State& state) {
  if (!s_hasPostmap(state)) return;
  startDatabase();  // The files name it.
  s_writeFiles();
  const OneCore pinned;
  const Responder service = s_startService(0);
  const Responder constant = s_startConstant(0);
  compare(state, {"postmap: service / constant responder, time", s_mostOfConstant},
          s_askingBy(s_socketTable(service)), s_askingBy(s_socketTable(constant)));
}

void servePostmapDatabase(benchmark::State& state) {
  if (!s_hasPostmap(state)) return;
  startDatabase();  // The files name it.
  s_writeFiles();
  const std::string types = "postconf -c '" + s_directory().string() + "' -m 2>/dev/null";
  if (!s_succeeds(types + " | grep -qx mysql")) {
    state.SkipWithError("postmap knows no mysql: tables; the package postfix-mysql has them");
    return;
  }
  const OneCore pinned;
  const Responder service = s_startService(0);
  compare(state, {"postmap: service / its own mysql: table, time", s_mostOfDatabase},
          s_askingBy(s_socketTable(service)),
          s_askingBy("mysql:" + (s_directory() / "mysql.cf").string()));
}

void serveImage(benchmark::State& state) {
  fillAliasTable(s_imageTable, sizes().rows);
  BareConnection connection("ts_address_map");
  const OneCore pinned;
  const auto ours = [](std::size_t) {
    const Serve::TableImage image(Serve::TableKind::Alias, [](const Serve::TakeRow& take) {
      Database::Connection source("ts_address_map");
      Tool::selectPairs(source, std::string("select name, members from ") + s_imageTable, take);
    });
    benchmark::DoNotOptimize(image.rows().size());
  };
  const auto bare = [&](std::size_t) {
    benchmark::DoNotOptimize(
        connection.selectAndWalk(std::string("select * from ") + s_imageTable));
  };
  compare(state, {"image / bare select *", s_mostWalks}, timed(Clock::Everyone, ours),
          timed(Clock::Everyone, bare));
}

Serve::RowSource s_aliases(int rows) {
  return [rows](const Serve::TakeRow& take) {
    for (int i = 0; i < rows; ++i) {
      std::string members;
      for (const std::string& member : aliasMembers(i)) {
        members += (members.empty() ? "" : ",") + member;
      }
      take(aliasName(i), members);
    }
  };
}

// The resident memory that an image takes, in MB, and what it takes when all of it has been asked.
void serveMemory(benchmark::State& state) {
  const int rows = s_huge * sizes().rows;
  const auto resident = [] {
    std::ifstream file("/proc/self/statm");
    double pages = 0;
    file >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
  };
  for (auto _ : state) {
    const double before = resident();
    const Serve::TableImage image(Serve::TableKind::Alias, s_aliases(rows));
    const double built = resident();
    for (int i = 0; i < rows; ++i) {
      benchmark::DoNotOptimize(image.alias().expand(aliasName(i)));
    }
    measured("image of ten times the rows, memory", built - before, "MB", 600);
    measured("the same when all of it was asked for", resident() - before, "MB", 600);
  }
}

// A rule for each tenth of `rows` aliases.
Serve::RowSource s_rules(int rows) {
  return [rows](const Serve::TakeRow& take) {
    for (int i = 0; i < rows; i += 10) {
      const char* const writers = i % 20 == 0 ? "members" : "authenticated";
      take("alias " + aliasName(i), std::string(writers) + "\t\t" + aliasMembers(i)[0] + "\t");
    }
  };
}

// A question about a policy against a lookup in the map of aliases, in one process; and the memory
// of the rules against that of the aliases.
void servePolicy(benchmark::State& state) {
  const int rows = s_huge * sizes().rows;
  const Serve::Settings settings;
  Serve::Tables tables(settings);
  const auto publish = [&tables](const char* name, const Serve::RowSource& source) {
    const Serve::TablePointer table = tables.add(name);
    table->publish(std::make_shared<const Serve::TableImage>(table->kind(), source));
    table->confirm(Serve::Clock::now() + std::chrono::hours(1));
    return static_cast<double>(table->image()->bytes());
  };
  publish("mask", [](const Serve::TakeRow& /*take*/) {});
  const double aliases = publish("alias", s_aliases(rows));
  const double rules = publish("rules", s_rules(rows));
  measured("images with a rule for a tenth of the aliases / without", (aliases + rules) / aliases,
           "", 1.2);
  Serve::Metrics metrics;
  Serve::Log log(Serve::LogLevel::Error);
  Serve::Lookup lookup(settings, tables, metrics, log);
  const OneCore pinned;
  // The first time an address is asked for, and when its answer is kept.
  const auto some = static_cast<std::size_t>(state.range(0) == 0 ? rows : std::min(rows, 1000));
  const auto name = [some](std::size_t i) { return aliasName(static_cast<int>(i * 7919 % some)); };
  const std::string login = aliasMembers(0)[0];
  const auto ours = [&](std::size_t i) {
    const std::string recipient = name(i);
    require(lookup.action({"smtpd_access_policy", "RCPT", recipient, login, "192.0.2.1", ""}) !=
            nullptr);
  };
  const auto bare = [&](std::size_t i) { require(lookup.reply("alias " + name(i)) != nullptr); };
  const char* const title = state.range(0) == 0
                                ? "policy question / lookup of an alias, time, first time"
                                : "policy question / lookup of an alias, time, again";
  compare(state, {title, 1.5}, timed(Clock::Own, ours), timed(Clock::Own, bare));
}

// Lookups of aliases that are noted as used, against those that are not, in one process.
void serveCountUse(benchmark::State& state) {
  const Serve::Settings settings;
  Serve::Settings counting;
  counting.countUse = s_socket("used");
  Serve::Tables tables(settings);
  const Serve::TablePointer table = tables.add("alias");
  table->publish(std::make_shared<const Serve::TableImage>(table->kind(), s_aliases(sizes().rows)));
  table->confirm(Serve::Clock::now() + std::chrono::hours(1));
  Serve::Metrics metrics;
  Serve::Log log(Serve::LogLevel::Error);
  Serve::Lookup ours(counting, tables, metrics, log);
  Serve::Lookup bare(settings, tables, metrics, log);
  const OneCore pinned;
  // A reply to an address with an extension is made each time.
  const bool isTagged = state.range(0) == 0;
  const auto some =
      static_cast<std::size_t>(isTagged ? sizes().rows : std::min(sizes().rows, 1000));
  const auto side = [&](Serve::Lookup& lookup) {
    return timed(Clock::Own, [&lookup, some, isTagged](std::size_t i) {
      std::string request = "alias " + aliasName(static_cast<int>(i * 7919 % some));
      if (isTagged) request.insert(request.find('@'), "+tag");
      require(lookup.reply(request) != nullptr);
    });
  };
  const char* const title = isTagged ? "alias with an extension that is counted / not, time"
                                     : "alias that is counted / not, time, again";
  compare(state, {title, isTagged ? 1.25 : 1.1}, side(ours), side(bare));
}

BENCHMARK_CAPTURE(serveLoad, time1, 1, false)->Apply(inRounds);
BENCHMARK_CAPTURE(serveLoad, time100, 100, false)->Apply(inRounds);
BENCHMARK_CAPTURE(serveLoad, tail1, 1, true)->Apply(inRounds);
BENCHMARK_CAPTURE(serveLoad, tail100, 100, true)->Apply(inRounds);
BENCHMARK(servePostmapConstant)->Apply(inRounds);
BENCHMARK(servePostmapDatabase)->Apply(inRounds);
BENCHMARK(serveImage)->Apply(inRounds);
BENCHMARK(serveMemory)->Iterations(1);
BENCHMARK(serveCountUse)->Arg(0)->Arg(1)->Apply(inRounds);
BENCHMARK(servePolicy)->Arg(0)->Arg(1)->Apply(inRounds);

}  // namespace
}  // namespace Tessel::Bench
