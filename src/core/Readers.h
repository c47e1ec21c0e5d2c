// Counts the threads that read a structure without its lock, so that what is taken out of the
// structure is destroyed only when none of them can still look at it.
#ifndef TSL_CORE_READERS_H
#define TSL_CORE_READERS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/ThreadNumber.h"

namespace Tessel {

// The readers of one structure. A reader is counted before it comes to its first entry, which it
// does under the structure's lock; it releases the lock, reads on without it, and leaves. So
// whoever holds the lock exclusively to take an entry out sees, in the counts, every reader that
// may have come to that entry; those that enter later cannot come to it.
//
// There are two entrances. While the readers behind one are waited for, new ones are sent through
// the other, so that the wait ends however many come.
//
// Threads: as each operation says; "the lock" is the structure's.
class Readers {
  // Counts for each entrance, which only grow (and wrap around together).
  using Counts = std::array<std::atomic<std::uint32_t>, 2>;

  // The counts of one thread, on a cache line of their own: processors that write to one line wait
  // for each other. Only its thread writes to it, so that counting takes no atomic addition; but
  // the last one is for all threads that have no number.
  struct alignas(64) Slot {
    Counts entered{};
    Counts left{};
    bool shared = false;

    void add(std::atomic<std::uint32_t>& count, std::memory_order order) const noexcept {
      if (shared) {
        count.fetch_add(1, order);
      } else {
        count.store(count.load(std::memory_order_relaxed) + 1, order);
      }
    }
  };

 public:
  Readers() noexcept { m_slots.back().shared = true; }

  // A reader from construction to destruction. It must not wait meanwhile for what a writer does,
  // other than for the lock.
  class Inside {
   public:
    // Enters without the lock, which the reader takes next: that makes it visible to writers.
    explicit Inside(Readers& readers) noexcept : Inside(readers, readers.m_entrance) {
      m_slot.add(m_slot.entered[m_entrance], std::memory_order_relaxed);
    }
    // Enters while the caller holds the lock exclusively.
    struct Locked {};
    Inside(Readers& readers, Locked /*lock*/) noexcept : Inside(readers, readers.m_entrance) {
      ++readers.m_enteredLocked[m_entrance];
    }
    ~Inside() { m_slot.add(m_slot.left[m_entrance], std::memory_order_release); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    Inside(Readers& readers, const std::atomic<std::uint32_t>& entrance) noexcept
        : m_slot(readers.m_slots[ThreadNumber::mine()]),
          m_entrance(entrance.load(std::memory_order_relaxed)) {}

    Slot& m_slot;
    std::uint32_t m_entrance;
  };

  // From here on `haveLeft` is about the readers that are inside now. Requires: the lock, held
  // exclusively.
  void watch() noexcept { m_left = {}; }

  // True once every reader that was inside at the last `watch` has left. Each was counted behind
  // one of the entrances: both must have been seen empty since, at any two moments. Requires: the
  // lock, held exclusively.
  bool haveLeft() noexcept {
    m_left[0] = m_left[0] || isEmpty(0);
    m_left[1] = m_left[1] || isEmpty(1);
    m_entrance.store(m_left[0] ? 0 : 1, std::memory_order_relaxed);
    return m_left[0] && m_left[1];
  }

 private:
  [[nodiscard]] bool isEmpty(std::size_t entrance) const noexcept {
    std::uint32_t left = 0;
    for (const Slot& slot : m_slots) {
      left += slot.left[entrance].load(std::memory_order_acquire);
    }
    // Added up last, so that who leaves meanwhile counts as inside.
    std::uint32_t entered = m_enteredLocked[entrance];
    for (const Slot& slot : m_slots) {
      entered += slot.entered[entrance].load(std::memory_order_relaxed);
    }
    return entered == left;
  }

  // Guarded by the lock, both.
  std::array<std::uint32_t, 2> m_enteredLocked{};
  std::array<bool, 2> m_left{};  // Which entrances were seen empty since the last `watch`.
  std::array<Slot, ThreadNumber::s_most + 1> m_slots;
  std::atomic<std::uint32_t> m_entrance{0};
};

}  // namespace Tessel

#endif
