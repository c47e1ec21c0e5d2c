// Standard error, for a test to look at.
#ifndef TSL_TESTS_SUPPORT_ERROROUTPUT_H
#define TSL_TESTS_SUPPORT_ERROROUTPUT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace Tessel::Testing {

// Takes what is written to standard error while in scope. Other threads may write at any time:
// nothing is lost between two looks, as it is with GoogleTest's own capture. One thread looks.
class ErrorOutput {
 public:
  ErrorOutput() {
    if (m_file == -1 || m_before == -1) throw std::runtime_error("standard error is not taken");
    redirect(m_file);
  }
  ~ErrorOutput() {
    redirect(m_before);
    close(m_before);
    close(m_file);
  }
  ErrorOutput(const ErrorOutput&) = delete;
  ErrorOutput& operator=(const ErrorOutput&) = delete;

  // What was written since the last call.
  std::string take() {
    std::fflush(stderr);
    std::string text;
    char buffer[4096];
    while (true) {
      const ssize_t size = pread(m_file, buffer, sizeof buffer, m_taken);
      if (size <= 0) return text;
      text.append(buffer, static_cast<std::size_t>(size));
      m_taken += size;
    }
  }

 private:
  static void redirect(int file) {
    std::fflush(stderr);
    dup2(file, STDERR_FILENO);
  }

  const int m_file = memfd_create("stderr", MFD_CLOEXEC);
  const int m_before = dup(STDERR_FILENO);
  off_t m_taken = 0;
};

}  // namespace Tessel::Testing

#endif
