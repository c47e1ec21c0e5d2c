// Metrics, health and readiness over HTTP, on a listener of its own.
#ifndef TSL_TOOLS_SERVE_SOCKET_METRICSLISTENER_H
#define TSL_TOOLS_SERVE_SOCKET_METRICSLISTENER_H

#include <functional>
#include <memory>
#include <string>

namespace Tessel::Serve {

// Serves GET on /metrics (Prometheus), /health (200 while the service works) and /ready (200 when
// all tables can answer, 503 with the reason otherwise). The functions are called from a thread of
// its own. When there are many connections, the oldest ends for a new one. One thread creates and
// destroys it.
class MetricsListener {
 public:
  struct Pages {
    std::function<std::string()> metrics;
    std::function<std::string()> unready;  // Why the service is not ready; empty when it is.
    std::function<std::string()> host;     // Whose database it reads; empty for none.
  };

  // Listens on a port of the address or name `host`. Throws Tool::Failure,
  // ExitCode::Configuration, when it cannot listen there.
  MetricsListener(const std::string& host, int port, Pages pages);
  ~MetricsListener();
  MetricsListener(const MetricsListener&) = delete;
  MetricsListener& operator=(const MetricsListener&) = delete;

 private:
  class Server;

  std::unique_ptr<Server> m_server;
};

}  // namespace Tessel::Serve

#endif
