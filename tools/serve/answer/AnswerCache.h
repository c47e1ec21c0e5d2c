// Replies that are given again as long as the tables stay as they are.
#ifndef TSL_TOOLS_SERVE_ANSWER_ANSWERCACHE_H
#define TSL_TOOLS_SERVE_ANSWER_ANSWERCACHE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "serve/base/Answer.h"
#include "serve/base/MemoryBudget.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// Groups of four places; each key has one group, in which a new reply takes the place of the one
// that was not asked for longest. That takes one access to memory. A list in the order of use takes
// as many as its tree is high, which would be most of the time of a request. One thread.
class AnswerCache {
 public:
  // What a reply was made from.
  struct Source {
    std::uint64_t table;  // Says which table in which direction.
    std::uint64_t image;  // Says which image of it: replies from others are not given any more.
  };

  // A reply and its key, both behind the object in one block of memory: what is outside the
  // processor's caches costs more than everything else that is done here.
  class Entry {
   public:
    [[nodiscard]] std::string_view key() const { return {text(), m_keySize}; }
    [[nodiscard]] std::string_view reply() const { return {text() + m_keySize, m_replySize}; }
    [[nodiscard]] Result result() const { return m_result; }

   private:
    friend class AnswerCache;

    [[nodiscard]] const char* text() const { return reinterpret_cast<const char*>(this + 1); }

    Source m_source{};
    Clock::time_point m_until;
    Clock::time_point m_used;
    std::uint32_t m_keySize{};
    std::uint32_t m_replySize{};
    Result m_result = Result::Temp;
  };

  // Takes its memory from `budget`, which must outlive the object.
  explicit AnswerCache(MemoryBudget& budget) : m_budget(budget) {}
  ~AnswerCache();
  AnswerCache(const AnswerCache&) = delete;
  AnswerCache& operator=(const AnswerCache&) = delete;

  // The reply to `key` from `source` that holds at `now`; null when none is known. Valid until the
  // next call.
  [[nodiscard]] const Entry* find(const Source& source, std::string_view key,
                                  Clock::time_point now) const;
  // Keeps the reply until `until`, unless there is no memory for it even without a few others.
  void keep(const Source& source, std::string_view key, std::string_view reply, Result result,
            Clock::time_point until, Clock::time_point now);
  // Gives back memory of what was not asked for lately. Does a part of the work, a second's worth,
  // each time it is called.
  void sweep(Clock::time_point now);

 private:
  static constexpr std::size_t s_places = 4;

  struct Free {
    void operator()(Entry* entry) const noexcept { ::operator delete(entry); }
  };
  using EntryPointer = std::unique_ptr<Entry, Free>;

  // As large as a line of the processor's caches.
  struct Group {
    std::array<std::uint64_t, s_places> hashes{};  // Compared first.
    std::array<EntryPointer, s_places> entries;
  };

  [[nodiscard]] Group& groupOf(std::uint64_t hash) {
    return m_groups[hash & (m_groups.size() - 1)];
  }
  // The place for an entry of `key` in its group: that of the same key, or of the oldest.
  static std::size_t placeFor(const Group& group, const Source& source, std::string_view key,
                              std::uint64_t hash);
  bool makeRoom(std::size_t size);
  void drop(EntryPointer& entry);
  bool dropOneOfNextGroup();
  void resize(std::size_t groups);

  MemoryBudget& m_budget;
  std::vector<Group> m_groups;  // Their number is a power of two, or 0.
  std::size_t m_count = 0;      // Of entries.
  std::size_t m_victims{};      // The group that loses an entry next.
  std::size_t m_swept{};        // The group that is swept next.
};

}  // namespace Tessel::Serve

#endif
