// Metrics, health and readiness over HTTP.
#include "serve/socket/MetricsListener.h"

#include <chrono>
#include <list>
#include <optional>
#include <thread>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

using namespace std::chrono_literals;

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::seconds s_requestPatience = 5s;
constexpr std::size_t s_mostConnections = 64;

}  // namespace

class MetricsListener::Server {
 public:
  Server(const std::string& host, int port, Pages pages)
      : m_pages(std::move(pages)), m_acceptor(m_context) {
    const tcp::endpoint endpoint =
        *tcp::resolver(m_context).resolve(host, std::to_string(port), tcp::resolver::passive);
    m_acceptor.open(endpoint.protocol());
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
    accept();
    m_thread = std::thread([this] { m_context.run(); });
  }

  ~Server() {
    m_context.stop();
    m_thread.join();
  }

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 private:
  using Response = http::response<http::string_body>;

  // One connection, which asks once.
  struct Session {
    explicit Session(tcp::socket&& socket) : stream(std::move(socket)) {}

    beast::tcp_stream stream;
    beast::flat_buffer buffer;
    http::request_parser<http::empty_body> parser;
    Response response;
  };
  using Place = std::list<Session>::iterator;

  void accept() {
    m_acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
      if (!error) {
        m_sessions.emplace_back(std::move(socket));
        read(std::prev(m_sessions.end()));
        // Those who ask nothing must not keep out those who do.
        if (m_sessions.size() > s_mostConnections) m_sessions.front().stream.cancel();
        return accept();
      }
      // No descriptor is left: there may be one later.
      m_pause.expires_after(100ms);
      m_pause.async_wait([this](const error_code& /*stopped*/) { accept(); });
    });
  }

  void read(Place session) {
    session->stream.expires_after(s_requestPatience);
    http::async_read(session->stream, session->buffer, session->parser,
                     [this, session](const error_code& error, std::size_t /*size*/) {
                       if (error) {
                         m_sessions.erase(session);
                       } else {
                         answer(session);
                       }
                     });
  }

  void answer(Place session) {
    session->response = responseTo(session->parser.get());
    session->response.version(session->parser.get().version());
    session->response.keep_alive(false);
    session->response.prepare_payload();
    http::async_write(session->stream, session->response,
                      [this, session](const error_code& /*error*/, std::size_t /*size*/) {
                        error_code ignored;
                        session->stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                        m_sessions.erase(session);
                      });
  }

  Response responseTo(const http::request<http::empty_body>& request) const {
    Response response;
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    if (request.method() != http::verb::get) {
      response.result(http::status::method_not_allowed);
      response.body() = "only GET is known\n";
    } else if (request.target() == "/metrics") {
      response.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
      response.body() = m_pages.metrics();
    } else if (request.target() == "/health") {
      response.body() = "ok\n";
    } else if (request.target() == "/ready") {
      const std::string why = m_pages.unready();
      if (!why.empty()) response.result(http::status::service_unavailable);
      const std::string host = m_pages.host();
      response.body() = (why.empty() ? "ready" : why) +
                        "\ndatabase: " + (host.empty() ? "none can be asked" : host) + "\n";
    } else {
      response.result(http::status::not_found);
      response.body() = "there are /metrics, /health and /ready\n";
    }
    return response;
  }

  const Pages m_pages;
  boost::asio::io_context m_context;
  tcp::acceptor m_acceptor;
  boost::asio::steady_timer m_pause{m_context};
  std::list<Session> m_sessions;  // The oldest first.
  std::thread m_thread;
};

MetricsListener::MetricsListener(const std::string& host, int port, Pages pages) {
  try {
    m_server = std::make_unique<Server>(host, port, std::move(pages));
  } catch (const boost::system::system_error& error) {
    throw Tool::Failure(Tool::ExitCode::Configuration,
                        "listening for metrics at " + host + " port " + std::to_string(port),
                        error.code().message(),
                        "give a free port on an address of this host, as in "
                        "--metrics 127.0.0.1:9321");
  }
}

MetricsListener::~MetricsListener() = default;

}  // namespace Tessel::Serve
