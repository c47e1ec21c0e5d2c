// The lookup service as a whole.
#include "serve/Service.h"

#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "base/sizes.h"
#include "failure/Failure.h"
#include "serve/base/Background.h"
#include "serve/base/Metrics.h"
#include "serve/image/AliasUse.h"
#include "serve/image/ConfigurationHelper.h"
#include "serve/image/ConfigurationWatch.h"
#include "serve/image/Readiness.h"
#include "serve/image/Table.h"
#include "serve/image/TableWatch.h"
#include "serve/socket/ListenSocket.h"
#include "serve/socket/MetricsListener.h"
#include "serve/socket/Worker.h"
#include "tables/TableNames.h"

namespace Tessel::Serve {

namespace {

using boost::system::error_code;
using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::generic::stream_protocol>;

// Wait before the next connection is accepted when there are no descriptors left.
constexpr std::chrono::milliseconds s_acceptPause = 100ms;
// How long connections wait at the start until all that can be read is read, and how often that is
// looked at.
constexpr std::chrono::milliseconds s_startPatience = 5s;
constexpr std::chrono::milliseconds s_startStep = 5ms;
// How long the end waits for the database: it reads only, so nothing is lost.
constexpr std::chrono::milliseconds s_databasePatience = 200ms;
// Descriptors for other things than connections.
constexpr std::size_t s_otherDescriptors = 64;

boost::asio::generic::stream_protocol s_protocolOf(int descriptor) {
  int family{};
  socklen_t size = sizeof(family);
  getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &family, &size);
  return {family, 0};
}

// Raises the limit of descriptors to what the connections may need. Returns the number of
// connections that it allows.
std::size_t s_raiseLimit(std::size_t connections, Log& log) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return connections;
  const rlim_t wanted = connections + s_otherDescriptors;
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur >= wanted) return connections;
  const std::size_t possible = limit.rlim_cur > 2 * s_otherDescriptors
                                   ? limit.rlim_cur - s_otherDescriptors
                                   : s_otherDescriptors;
  log.warning("the limit of open files allows " + std::to_string(possible) +
              " connections instead of " + std::to_string(connections) +
              "; raise LimitNOFILE= of the unit");
  return possible;
}

void s_tellSystemd(const char* state) {
  sd_notify(0, state);
}

class Service {
 public:
  Service(const Settings& settings, Log& log)
      : m_settings(settings),
        m_log(log),
        m_tables(settings),
        m_readiness(settings, m_tables, log),
        m_mostConnections(s_raiseLimit(settings.maxConnections, log)),
        m_signals(m_context, SIGTERM, SIGINT, SIGHUP),
        m_watchdog(m_context),
        m_reports(m_context),
        m_pause(m_context) {
    if (settings.leaveOutDisabled) m_tables.configuration().setNeeded();
    // The base tables are known from the start: one that is not read yet is not "not there".
    m_tables.add(Tool::aliasTableName(""));
    m_tables.add(Tool::maskTableName(""));
  }

  void run() {
    openSockets();
    m_watch = std::make_unique<TableWatch>(m_settings, m_tables, m_metrics, m_log);
    if (m_settings.metrics) listenForMetrics(*m_settings.metrics);
    if (!m_settings.countUse.empty()) {
      m_use = std::make_unique<AliasUse>(m_settings, m_tables, m_log);
    }
    while (m_workers.size() < m_settings.workers) {
      m_workers.emplace_back(m_settings, m_tables, m_metrics, m_log, m_background,
                             [this] { closed(); });
    }
    m_watch->start();
    m_configurationWatch = std::make_unique<ConfigurationWatch>(
        m_settings, m_tables.configuration(), m_log,
        ConfigurationWatch::Helper{{"/proc/self/exe", s_helperCommand}});
    waitForSignal();
    watch();
    report();
    begin(Clock::now() + s_startPatience);
    m_context.run();
    end();
  }

 private:
  struct Listener {
    Listener(boost::asio::io_context& context, ListenSocket&& listenSocket)
        : socket(std::move(listenSocket)), acceptor(context), pause(context) {
      const auto protocol = s_protocolOf(socket.descriptor());
      acceptor.assign(protocol, socket.release());
    }

    ListenSocket socket;  // Without the descriptor, which is the acceptor's.
    Acceptor acceptor;
    boost::asio::steady_timer pause;
  };

  void openSockets() {
    std::vector<ListenSocket> sockets = inheritedSockets();
    for (const ListenAddress& address : m_settings.listen) sockets.emplace_back(address);
    if (sockets.empty()) {
      throw Tool::Failure(Tool::ExitCode::Usage, "serve", "there is nothing to listen on",
                          "give --listen, as in --listen unix:/run/tsl-address-map/socketmap");
    }
    for (ListenSocket& socket : sockets) {
      m_log.info("listening on " + socket.name());
      if (socket.protocol() == Protocol::Policy) m_tables.setRulesNeeded();
      m_listeners.emplace_back(m_context, std::move(socket));
    }
  }

  void listenForMetrics(const ListenAddress& address) {
    m_metricsListener = std::make_unique<MetricsListener>(
        address.host, address.port,
        MetricsListener::Pages{[this] { return metrics(); },
                               [this] { return m_readiness.whyNot(Clock::now()); },
                               [this] { return m_watch->host(); }});
  }

  std::string metrics() {
    m_metrics.linesLost(m_log.lost());
    return metricsText(m_metrics, m_tables, Clock::now());
  }

  [[nodiscard]] std::size_t connections() const {
    std::size_t count = 0;
    for (const Worker& worker : m_workers) count += worker.connections();
    return count;
  }

  // Takes connections as soon as all that can be read is read, at `limit` at the latest. They wait
  // meanwhile: to be answered TEMP right after a restart would delay mail for much longer.
  void begin(Clock::time_point limit) {
    const bool isSettled = m_watch->isSettled() && m_configurationWatch->hasLooked();
    if (isSettled || Clock::now() >= limit) {
      s_tellSystemd("READY=1");
      for (Listener& listener : m_listeners) accept(listener);
      return;
    }
    m_pause.expires_after(s_startStep);
    m_pause.async_wait([this, limit](const error_code& cancelled) {
      if (!cancelled) begin(limit);
    });
  }

  // Takes connections from `listener`.
  void accept(Listener& listener) {
    if (m_isEnding) return;
    Worker& worker = *std::min_element(
        m_workers.begin(), m_workers.end(),
        [](const Worker& a, const Worker& b) { return a.connections() < b.connections(); });
    listener.acceptor.async_accept(
        [this, &listener, &worker](const error_code& error,
                                   boost::asio::generic::stream_protocol::socket socket) {
          if (m_isEnding && error) return;
          if (error) return pause(listener, error);
          const bool isOneTooMany = connections() >= m_mostConnections;
          worker.take(socket.release(), listener.socket.protocol(), isOneTooMany);
          accept(listener);
        });
  }

  // No connection can be accepted now: tries again in a moment.
  void pause(Listener& listener, const error_code& error) {
    m_log.error("no connection can be accepted: " + error.message());
    listener.pause.expires_after(s_acceptPause);
    listener.pause.async_wait(
        [this, &listener](const error_code& /*cancelled*/) { accept(listener); });
  }

  // A connection was closed, on the thread of a worker.
  void closed() {
    boost::asio::post(m_context, [this] {
      if (m_isEnding && connections() == 0) m_context.stop();
    });
  }

  void waitForSignal() {
    m_signals.async_wait([this](const error_code& error, int signal) {
      if (error) return;
      if (signal != SIGHUP) return drain();
      reload();
      waitForSignal();
    });
  }

  void reload() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long microseconds = now.tv_sec * 1000000LL + now.tv_nsec / 1000;
    sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld", microseconds);
    m_log.info("rereading all tables");
    m_watch->reload();
    m_configurationWatch->reload();
    s_tellSystemd("READY=1");
  }

  void drain() {
    m_log.info("ending");
    s_tellSystemd("STOPPING=1");
    m_isEnding = true;
    for (Listener& listener : m_listeners) listener.acceptor.close();
    for (Worker& worker : m_workers) worker.drain();
    m_pause.expires_after(m_settings.drain);
    m_pause.async_wait([this](const error_code& cancelled) {
      if (!cancelled) m_context.stop();
    });
    closed();
  }

  // Reports to systemd that all threads are alive, twice as often as it expects.
  void watch() {
    std::uint64_t microseconds{};
    if (sd_watchdog_enabled(0, &microseconds) <= 0) return;
    const bool isAlive = std::all_of(m_workers.begin(), m_workers.end(),
                                     [](Worker& worker) { return worker.isAlive(); });
    if (isAlive) s_tellSystemd("WATCHDOG=1");
    m_watchdog.expires_after(std::chrono::microseconds(microseconds / 2));
    m_watchdog.async_wait([this](const error_code& error) {
      if (!error) watch();
    });
  }

  // Logs once a second what has become too old, also while the database is waited for, and notes
  // which aliases were asked for.
  void report() {
    m_readiness.report(Clock::now());
    if (m_use != nullptr) m_use->look();
    m_reports.expires_after(1s);
    m_reports.async_wait([this](const error_code& error) {
      if (!error) report();
    });
  }

  void end() {
    m_workers.clear();
    if (m_use != nullptr) m_use->finish();
    m_metricsListener.reset();
    m_listeners.clear();
    m_configurationWatch.reset();
    m_background.stop();
    const bool isStopped = m_watch->stop(s_databasePatience);
    if (isStopped && !m_background.isBusy()) return;
    // A database that hangs must not delay the exit, nor a long answer that nobody waits for: all
    // requests are answered by now.
    if (!isStopped) m_log.warning("ending without the answer of the database");
    m_log.flush();
    std::_Exit(EXIT_SUCCESS);
  }

  const Settings& m_settings;
  Log& m_log;
  Tables m_tables;
  Readiness m_readiness;
  Metrics m_metrics;
  const std::size_t m_mostConnections;
  boost::asio::io_context m_context;
  boost::asio::signal_set m_signals;
  boost::asio::steady_timer m_watchdog;
  boost::asio::steady_timer m_reports;
  boost::asio::steady_timer m_pause;
  Background m_background{1};  // Makes long answers.
  std::unique_ptr<TableWatch> m_watch;
  std::unique_ptr<ConfigurationWatch> m_configurationWatch;
  std::unique_ptr<MetricsListener> m_metricsListener;
  std::unique_ptr<AliasUse> m_use;
  std::list<Worker> m_workers;
  std::list<Listener> m_listeners;
  bool m_isEnding = false;
};

}  // namespace

void serve(const Settings& settings, Log& log) {
  Service(settings, log).run();
}

}  // namespace Tessel::Serve
