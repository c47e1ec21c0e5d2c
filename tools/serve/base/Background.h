// Threads for what takes long.
#ifndef TSL_TOOLS_SERVE_BASE_BACKGROUND_H
#define TSL_TOOLS_SERVE_BASE_BACKGROUND_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

namespace Tessel::Serve {

// Runs tasks on threads of its own, in the order in which they came. Any thread may call `post`.
class Background {
 public:
  explicit Background(std::size_t threads);
  // Waits for the tasks that run; the others are dropped.
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  // `task` must not throw.
  void post(std::function<void()> task);
  // Drops the tasks that do not run yet.
  void stop();
  // Waits until all tasks are done.
  void finish();
  // True while a task runs.
  [[nodiscard]] bool isBusy() const noexcept { return m_running != 0; }

 private:
  class Threads;

  std::unique_ptr<Threads> m_threads;
  std::atomic<std::size_t> m_running = 0;
};

}  // namespace Tessel::Serve

#endif
