// How much memory answers may take.
#include "serve/base/MemoryBudget.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace Tessel::Serve {

namespace {

// The limit that the file `path` holds; `none` when there is no such file, or it says "max".
std::size_t s_limitIn(const std::string& path, std::size_t none) {
  std::size_t limit{};
  return std::ifstream(path) >> limit ? limit : none;
}

}  // namespace

std::size_t blockSize(const void* block) noexcept {
  // The allocator keeps the size of a block in front of it.
  return block == nullptr ? 0 : malloc_usable_size(const_cast<void*>(block)) + sizeof(std::size_t);
}

std::size_t blockSize(const std::string& text) noexcept {
  static const std::size_t s_short = std::string().capacity();
  return text.capacity() <= s_short ? 0 : blockSize(static_cast<const void*>(text.data()));
}

void releaseFreeMemory() noexcept {
  malloc_trim(0);
}

std::size_t availableMemory(const std::string& root) {
  std::size_t least = static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) *
                      static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  std::ifstream groups(root + "/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    if (!line.starts_with("0::")) continue;
    // Each group above it has a limit too, also the highest, where it is that of a container.
    for (std::string path = line.substr(3);; path.resize(path.rfind('/'))) {
      const std::string group = std::string(root).append("/sys/fs/cgroup").append(path);
      least = std::min(least, s_limitIn(group + "/memory.max", least));
      if (path.find('/') == std::string::npos) break;
    }
  }
  return least;
}

}  // namespace Tessel::Serve
