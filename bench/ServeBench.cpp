// The lookup service: a mail server's lookups in it, against the same mail server's lookups in the
// database and against a responder that answers a constant; and the reading of a whole table. All
// processes of a comparison share one core.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "BareConnection.h"
#include "BenchDatabase.h"
#include "Ratios.h"
#include "cli/TextRows.h"
#include "database/Connection.h"
#include "serve/Table.h"

namespace Tessel::Bench {
namespace {

using std::chrono::steady_clock;

// The base table: it is what the service answers from when no table is named.
constexpr char s_table[] = "alias";
constexpr int s_times = 10;
constexpr char s_imageTable[] = "alias_image";
constexpr int s_fewConnections = 1;
constexpr int s_manyConnections = 100;

// Shares of the rate of the constant responder and of the mail server's own tables, as times.
constexpr double s_mostOfConstant = 1 / 0.8;
constexpr double s_mostOfDatabase = 1 / 2.0;
constexpr double s_mostOfTail = 2;
constexpr double s_mostWalks = 2.5;

// A folder for the sockets and files, gone with the program.
const std::filesystem::path& s_folder() {
  struct Folder {
    Folder() {
      char name[] = "/tmp/tsl-serve-bench-XXXXXX";
      if (mkdtemp(name) == nullptr) throw std::runtime_error("no folder in /tmp");
      path = name;
    }
    ~Folder() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path path;
  };
  static const Folder s_made;
  return s_made.path;
}

std::string s_socket(const std::string& name) {
  return s_folder() / name;
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

// A process that ends with the object.
class Process {
 public:
  explicit Process(pid_t id) : m_id(id) {}
  ~Process() {
    kill(m_id, SIGTERM);
    waitpid(m_id, nullptr, 0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

 private:
  pid_t m_id;
};

pid_t s_spawn(std::vector<std::string> words, const std::string& input, const std::string& output) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int failed =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw std::runtime_error("cannot run " + words[0]);
  return child;
}

// Waits until the one who listens at `path` answers the first request with "OK".
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

std::string s_startConstant(std::vector<std::unique_ptr<Process>>& processes) {
  const std::string path = s_socket("constant");
  unlink(path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, 1024) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);  // A caller may end without taking its last answer.
    s_answerConstant(listener);
  }
  close(listener);
  processes.push_back(std::make_unique<Process>(child));
  return path;
}

std::string s_startService(std::vector<std::unique_ptr<Process>>& processes) {
  const std::string path = s_socket("service");
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  processes.push_back(
      std::make_unique<Process>(s_spawn({self.parent_path() / "tsl-address-map", "serve",
                                         "--listen", "unix:" + path, "--only", "none"},
                                        "/dev/null", "/dev/null")));
  s_waitForAnswers(path);
  return path;
}

// Who answers, by the name of the benchmark.
std::string s_start(const std::string& who, std::vector<std::unique_ptr<Process>>& processes) {
  fillAliasTable(s_table, sizes().rows);
  return who == "service" ? s_startService(processes) : s_startConstant(processes);
}

// Aliases that are asked for, again and again: those of a busy mail server.
int s_asked() {
  return std::min(sizes().rows, 20000);
}

// The aliases that are asked for in an order in which neighbours are far apart.
int s_scattered(int i) {
  return static_cast<int>((static_cast<long long>(i) * 7919) % s_asked());
}

// One connection of the load: sends a request as soon as the one before is answered.
struct Caller {
  int descriptor = -1;
  int next = 0;
  steady_clock::time_point sent;
};

void s_send(Caller& caller) {
  const std::string request = s_request(s_scattered(caller.next++));
  caller.sent = steady_clock::now();
  if (write(caller.descriptor, request.data(), request.size()) < 0) {
    throw std::runtime_error("the connection is cut");
  }
}

// Asks `count` times over `connections` connections at once; the time that each answer took.
std::vector<double> s_load(const std::string& path, int connections, int count) {
  const int events = epoll_create1(EPOLL_CLOEXEC);
  std::vector<Caller> callers(static_cast<std::size_t>(connections));
  for (std::size_t i = 0; i < callers.size(); ++i) {
    callers[i].descriptor = s_connect(path);
    callers[i].next = static_cast<int>(i) * 1009;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = i;
    epoll_ctl(events, EPOLL_CTL_ADD, callers[i].descriptor, &event);
    s_send(callers[i]);
  }
  std::vector<double> latencies;
  std::vector<epoll_event> ready(256);
  char buffer[65536];
  while (latencies.size() < static_cast<std::size_t>(count)) {
    const int found = epoll_wait(events, ready.data(), static_cast<int>(ready.size()), 10000);
    if (found <= 0) throw std::runtime_error("no answer in 10 s");
    for (int i = 0; i < found; ++i) {
      Caller& caller = callers[ready[static_cast<std::size_t>(i)].data.u64];
      const ssize_t size = read(caller.descriptor, buffer, sizeof(buffer));
      if (size <= 0) throw std::runtime_error("the connection is cut");
      const std::string_view reply(buffer, static_cast<std::size_t>(size));
      if (reply.find(":OK ") == std::string_view::npos || reply.back() != ',') {
        throw std::runtime_error("a wrong answer");
      }
      latencies.push_back(std::chrono::duration<double>(steady_clock::now() - caller.sent).count());
      s_send(caller);
    }
  }
  for (const Caller& caller : callers) close(caller.descriptor);
  close(events);
  return latencies;
}

double s_quantile(std::vector<double> values, double share) {
  const auto place =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

// Medians of the 99th percentiles of the runs, by benchmark.
std::map<std::string, std::vector<double>>& s_tails() {
  static std::map<std::string, std::vector<double>> s_byName;
  return s_byName;
}

void serveLoad(benchmark::State& state, const std::string& who) {
  const auto connections = static_cast<int>(state.range(0));
  const OneCore oneCore;
  std::vector<std::unique_ptr<Process>> processes;
  const std::string path = s_start(who, processes);
  const int count = 10 * s_asked();
  const std::string name = who + std::to_string(connections);
  s_load(path, connections, count);
  std::vector<double> all;
  for (auto _ : state) {
    const std::vector<double> latencies = s_load(path, connections, count);
    all.insert(all.end(), latencies.begin(), latencies.end());
  }
  const double tail = s_quantile(all, 0.99);
  s_tails()[name].push_back(tail);
  state.counters["requests/s"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["p50 us"] = s_quantile(all, 0.5) * 1e6;
  state.counters["p99 us"] = tail * 1e6;
  if (who != "service") return;
  const std::vector<double>& constant = s_tails()["constant" + std::to_string(connections)];
  if (constant.empty()) return;
  measured("service / constant responder, 99th percentile over " + std::to_string(connections) +
               " connections",
           s_quantile(s_tails()[name], 0.5) / s_quantile(constant, 0.5), "", s_mostOfTail);
}

// Files of the keys to ask for, and of the mail server's own table.
void s_writeFiles() {
  std::ofstream keys(s_folder() / "keys");
  for (int i = 0; i < 10 * s_asked(); ++i) keys << aliasName(s_scattered(i)) << "\n";
  const char* const options = std::getenv("TSL_DATABASE_OPTION_FILE");
  std::ofstream table(s_folder() / "mysql.cf");
  table << "option_file = " << (options == nullptr ? "" : options) << "\noption_group = client\n"
        << "hosts = localhost\nuser = root\ndbname = ts_address_map\n"
        << "query = select members from alias where name = '%s'\n";
  // Names and addresses that need not be looked up, which would take longer than the lookups.
  std::ofstream main(s_folder() / "main.cf");
  main << "compatibility_level = 3.6\nmyhostname = mail.bench.example\n"
       << "mynetworks = 127.0.0.0/8\ninet_interfaces = 127.0.0.1\ninet_protocols = ipv4\n";
}

// Has the mail server's own program ask `table` for the keys; the number of answers in `output`.
int s_postmap(const std::string& table, const std::string& output) {
  const pid_t child =
      s_spawn({"postmap", "-c", s_folder(), "-q", "-", table}, s_folder() / "keys", output);
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("postmap failed");
  }
  std::ifstream answers(output);
  int lines = 0;
  for (std::string line; std::getline(answers, line);) ++lines;
  return lines;
}

// The mail server's own program asks for every alias, over one connection.
void servePostmap(benchmark::State& state, const std::string& who) {
  if (std::system("command -v postmap >/dev/null") != 0) {
    state.SkipWithError("postmap is not installed");
    return;
  }
  startDatabase();  // The files name it.
  s_writeFiles();
  const std::string types = "postconf -c '" + s_folder().string() + "' -m 2>/dev/null";
  if (who == "database" && std::system((types + " | grep -qx mysql").c_str()) != 0) {
    state.SkipWithError("postmap knows no mysql: tables; the package postfix-mysql has them");
    return;
  }
  const OneCore oneCore;
  std::vector<std::unique_ptr<Process>> processes;
  std::string table = "mysql:" + (s_folder() / "mysql.cf").string();
  if (who == "database") {
    fillAliasTable(s_table, sizes().rows);
  } else {
    table = "socketmap:unix:" + s_start(who, processes) + ":alias";
  }
  if (s_postmap(table, s_folder() / "answers") != 10 * s_asked()) {
    state.SkipWithError("postmap got too few answers");
    return;
  }
  // Nowhere: the writing of a file is not what is measured.
  for (auto _ : state) s_postmap(table, "/dev/null");
  state.counters["requests/s"] =
      benchmark::Counter(10.0 * s_asked(), benchmark::Counter::kIsIterationInvariantRate);
}

void serveImage(benchmark::State& state) {
  fillAliasTable(s_imageTable, s_times * sizes().rows);
  for (auto _ : state) {
    const Serve::TableImage image(Serve::TableKind::Alias, [](const Serve::TakeRow& take) {
      Database::Connection connection("ts_address_map");
      Tool::selectPairs(connection, std::string("select name, members from ") + s_imageTable, take);
    });
    benchmark::DoNotOptimize(image.rows().size());
  }
}

void serveBareWalk(benchmark::State& state) {
  fillAliasTable(s_imageTable, s_times * sizes().rows);
  BareConnection connection("ts_address_map");
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        connection.selectAndWalk(std::string("select * from ") + s_imageTable));
  }
}

// The resident memory that an image takes, in MB, and what it takes when all of it has been asked.
void serveMemory(benchmark::State& state) {
  fillAliasTable(s_imageTable, s_times * sizes().rows);
  const auto resident = [] {
    std::ifstream file("/proc/self/statm");
    double pages = 0;
    file >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
  };
  for (auto _ : state) {
    std::vector<std::pair<std::string, std::string>> rows;
    const double before = resident();
    const Serve::TableImage image(Serve::TableKind::Alias, [](const Serve::TakeRow& take) {
      for (int i = 0; i < s_times * sizes().rows; ++i) {
        std::string members;
        for (const std::string& member : aliasMembers(i)) {
          members += (members.empty() ? "" : ",") + member;
        }
        take(aliasName(i), members);
      }
    });
    const double built = resident();
    for (int i = 0; i < s_times * sizes().rows; ++i) {
      benchmark::DoNotOptimize(image.alias().expand(aliasName(i)));
    }
    measured("image of ten times the rows, memory", built - before, "MB", 600);
    measured("the same when all of it was asked for", resident() - before, "MB", 3000);
  }
}

BENCHMARK_CAPTURE(serveLoad, constant, std::string("constant"))
    ->Arg(s_fewConnections)
    ->Arg(s_manyConnections)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(serveLoad, service, std::string("service"))
    ->Arg(s_fewConnections)
    ->Arg(s_manyConnections)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(servePostmap, database, std::string("database"))
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(servePostmap, constant, std::string("constant"))
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(servePostmap, service, std::string("service"))
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(serveImage)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(serveBareWalk)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(serveMemory)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);

const bool s_compared = [] {
  compare("service / constant responder, time over 1 connection", Kind::Ratio,
          "serveLoad/service/1/real_time", "serveLoad/constant/1/real_time", 1, s_mostOfConstant);
  compare("service / constant responder, time over 100 connections", Kind::Ratio,
          "serveLoad/service/100/real_time", "serveLoad/constant/100/real_time", 1,
          s_mostOfConstant);
  compare("postmap: service / constant responder, time", Kind::Ratio,
          "servePostmap/service/real_time", "servePostmap/constant/real_time", 1, s_mostOfConstant);
  compare("postmap: service / its own mysql: table, time", Kind::Ratio,
          "servePostmap/service/real_time", "servePostmap/database/real_time", 1, s_mostOfDatabase);
  compare("image of ten times the rows / bare select *", Kind::Ratio, "serveImage/real_time",
          "serveBareWalk/real_time", 1, s_mostWalks);
  return true;
}();

}  // namespace
}  // namespace Tessel::Bench
