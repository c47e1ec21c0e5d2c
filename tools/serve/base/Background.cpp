// Threads for what takes long.
#include "serve/base/Background.h"

#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

namespace Tessel::Serve {

class Background::Threads : public boost::asio::thread_pool {
 public:
  using boost::asio::thread_pool::thread_pool;
};

Background::Background(std::size_t threads) : m_threads(std::make_unique<Threads>(threads)) {}

Background::~Background() {
  stop();
  finish();
}

void Background::post(std::function<void()> task) {
  boost::asio::post(*m_threads, [this, task = std::move(task)] {
    ++m_running;
    task();
    --m_running;
  });
}

void Background::stop() {
  m_threads->stop();
}

void Background::finish() {
  m_threads->join();
}

}  // namespace Tessel::Serve
