// Metrics, health and readiness over HTTP.
#include "serve/socket/MetricsListener.h"

#include <string_view>
#include <utility>
#include <vector>

#include <CivetServer.h>

#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

// Answers GET with a status and a text.
class TextPage : public CivetHandler {
 public:
  struct Text {
    bool isGood;
    std::string body;
  };

  TextPage(std::string type, std::function<Text()> make)
      : m_type(std::move(type)), m_make(std::move(make)) {}

  bool handleGet(CivetServer* /*server*/, mg_connection* connection) override {
    const Text text = m_make();
    mg_printf(connection,
              "HTTP/1.1 %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\nConnection: close\r\n\r\n",
              text.isGood ? "200 OK" : "503 Service Unavailable", m_type.c_str(), text.body.size());
    mg_write(connection, text.body.data(), text.body.size());
    return true;
  }

 private:
  const std::string m_type;
  const std::function<Text()> m_make;
};

}  // namespace

class MetricsListener::Server {
 public:
  Server(const std::string& address, Pages pages)
      : m_pages(std::move(pages)),
        m_metrics("text/plain; version=0.0.4; charset=utf-8",
                  [this] {
                    return TextPage::Text{true, m_pages.metrics()};
                  }),
        m_health("text/plain",
                 [] {
                   return TextPage::Text{true, "ok\n"};
                 }),
        m_ready("text/plain",
                [this] {
                  const std::string why = m_pages.unready();
                  return TextPage::Text{why.empty(), why.empty() ? "ready\n" : why + "\n"};
                }),
        m_server({"listening_ports", address, "num_threads", "2", "request_timeout_ms", "5000",
                  "enable_keep_alive", "no"}) {
    m_server.addHandler("/metrics", m_metrics);
    m_server.addHandler("/health", m_health);
    m_server.addHandler("/ready", m_ready);
  }

 private:
  const Pages m_pages;
  TextPage m_metrics;
  TextPage m_health;
  TextPage m_ready;
  CivetServer m_server;
};

MetricsListener::MetricsListener(const std::string& address, Pages pages) {
  try {
    m_server = std::make_unique<Server>(address, std::move(pages));
  } catch (const CivetException&) {
    throw Tool::Failure(Tool::ExitCode::Configuration, "listening for metrics at " + address,
                        "the address cannot be used",
                        "give a free port on an address of this host, as in "
                        "--metrics 127.0.0.1:9321");
  }
}

MetricsListener::~MetricsListener() = default;

}  // namespace Tessel::Serve
