// Small numbers for threads, so that each can have a place of its own in an array.
#ifndef TSL_CORE_THREADNUMBER_H
#define TSL_CORE_THREADNUMBER_H

#include <atomic>
#include <bit>
#include <cstdint>

namespace Tessel {

// Numbers from 0 to below `s_most`, each held by one living thread at a time. A thread gets its
// number when it first asks and gives it back when it ends; whoever gets it next sees all that it
// did. In a forked child the numbers of threads that exist only in the parent stay taken.
class ThreadNumber {
 public:
  static constexpr std::uint32_t s_most = 64;

  // The number of the calling thread, or `s_most` when none was free, and when the thread ends.
  static std::uint32_t mine() noexcept {
    if (s_mine == s_none) take();
    return s_mine;
  }

 private:
  static constexpr std::uint32_t s_none = ~std::uint32_t{0};

  // Gives the number back at the end of the thread.
  struct Holder {
    ~Holder() {
      if (s_mine < s_most) s_taken.fetch_and(~(std::uint64_t{1} << s_mine));
      s_mine = s_most;
    }
  };

  static void take() noexcept {
    s_mine = s_most;
    std::uint64_t taken = s_taken.load();
    while (~taken != 0) {
      const auto free = static_cast<std::uint32_t>(std::countr_one(taken));
      if (!s_taken.compare_exchange_weak(taken, taken | (std::uint64_t{1} << free))) continue;
      static thread_local const Holder s_holder;
      s_mine = free;
      return;
    }
  }

  static inline std::atomic<std::uint64_t> s_taken{0};  // A bit for each number.
  static inline constinit thread_local std::uint32_t s_mine = s_none;
};

}  // namespace Tessel

#endif
