// An open file that closes with its scope.
#ifndef TSL_TOOLS_DISK_DESCRIPTOR_H
#define TSL_TOOLS_DISK_DESCRIPTOR_H

#include <unistd.h>

namespace Tessel::Tool {

// Owns a descriptor; a negative one is none. One thread.
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : m_number(number) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const noexcept { return m_number; }
  void reset() noexcept {
    if (m_number >= 0) ::close(m_number);
    m_number = -1;
  }

 private:
  int m_number;
};

}  // namespace Tessel::Tool

#endif
