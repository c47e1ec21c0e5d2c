// How much memory answers may take.
#ifndef TSL_TOOLS_SERVE_BASE_MEMORYBUDGET_H
#define TSL_TOOLS_SERVE_BASE_MEMORYBUDGET_H

#include <atomic>
#include <cstddef>
#include <string>

namespace Tessel::Serve {

// Bytes that several holders share. Any thread may call any operation.
class MemoryBudget {
 public:
  explicit MemoryBudget(std::size_t most) : m_most(most) {}

  // Takes `size` bytes for the caller, who gives them back; false when there are not so many left.
  bool take(std::size_t size) noexcept {
    std::size_t used = m_used;
    while (size <= m_most && used <= m_most - size) {
      if (m_used.compare_exchange_weak(used, used + size)) return true;
    }
    return false;
  }
  void give(std::size_t size) noexcept { m_used -= size; }

  [[nodiscard]] std::size_t used() const noexcept { return m_used; }
  [[nodiscard]] std::size_t most() const noexcept { return m_most; }

 private:
  const std::size_t m_most;
  std::atomic<std::size_t> m_used = 0;
};

// Bytes that the allocator has set apart for `block`, which it returned; 0 for null.
std::size_t blockSize(const void* block) noexcept;

// Bytes that `text` has outside of the object: short texts have none.
std::size_t blockSize(const std::string& text) noexcept;

// Has the allocator give back what is free. To be called after much was freed; takes milliseconds.
void releaseFreeMemory() noexcept;

// Bytes of memory that this process may use: those of the machine, or of its control group if they
// are fewer (memory.max, see cgroups(7)). `root` is the directory of /proc and /sys.
std::size_t availableMemory(const std::string& root = "");

}  // namespace Tessel::Serve

#endif
