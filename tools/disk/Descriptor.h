// An open file that closes with its scope.
#ifndef TSL_TOOLS_DISK_DESCRIPTOR_H
#define TSL_TOOLS_DISK_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace Tessel::Tool {

// Owns a descriptor; a negative one is none. One thread.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int number) noexcept : m_number(number) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }

  [[nodiscard]] bool isOpen() const noexcept { return m_number >= 0; }
  [[nodiscard]] int get() const noexcept { return m_number; }
  // The number, which is the caller's from now on.
  int release() noexcept { return std::exchange(m_number, -1); }
  // Closes it, and owns `number` from now on.
  void reset(int number = -1) noexcept {
    if (isOpen()) ::close(m_number);
    m_number = number;
  }

 private:
  int m_number = -1;
};

}  // namespace Tessel::Tool

#endif
