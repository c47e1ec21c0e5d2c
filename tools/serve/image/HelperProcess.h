// A process that works for this one, at the other end of a socket.
#ifndef TSL_TOOLS_SERVE_IMAGE_HELPERPROCESS_H
#define TSL_TOOLS_SERVE_IMAGE_HELPERPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "disk/Descriptor.h"

namespace Tessel::Serve {

// One thread.
class HelperProcess {
 public:
  // Starts the program `command`, the first word being its path. It inherits nothing but its end of
  // the socket, as standard input. Throws std::system_error.
  explicit HelperProcess(const std::vector<std::string>& command);
  // Kills it.
  ~HelperProcess();
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  // This end of the socket.
  [[nodiscard]] int descriptor() const noexcept { return m_descriptor.get(); }
  [[nodiscard]] pid_t pid() const noexcept { return m_pid; }

  // Waits a moment until it has ended by itself, otherwise kills it. Its status as of waitpid(2).
  int end();

 private:
  bool hasEnded();

  Tool::Descriptor m_descriptor;
  pid_t m_pid = -1;
  bool m_hasEnded = false;
  int m_status{};
};

}  // namespace Tessel::Serve

#endif
