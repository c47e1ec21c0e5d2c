// Replies that are given again as long as the tables stay as they are.
#ifndef TSL_TOOLS_SERVE_ANSWER_ANSWERCACHE_H
#define TSL_TOOLS_SERVE_ANSWER_ANSWERCACHE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "serve/base/Answer.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// A fixed number of places in groups of four; each key has one group, in which a new reply takes
// the place of the oldest. That takes one access to memory. A list in the order of use takes as
// many as its tree is high, which would be most of the time of a request. One thread.
class AnswerCache {
 public:
  // A reply and its key, both in one text, and the rest is small: an entry outside the processor's
  // caches costs more than everything else that is done here.
  class Entry {
   public:
    Entry() = default;
    Entry(std::string_view key, std::string_view reply, Result result, Clock::time_point until)
        : m_text(key),
          m_keySize(static_cast<std::uint32_t>(key.size())),
          m_result(result),
          m_until(until) {
      m_text.append(reply);
    }

    [[nodiscard]] std::string_view key() const {
      return std::string_view(m_text).substr(0, m_keySize);
    }
    [[nodiscard]] std::string_view reply() const {
      return std::string_view(m_text).substr(m_keySize);
    }
    [[nodiscard]] Result result() const { return m_result; }

   private:
    friend class AnswerCache;

    std::string m_text;
    std::uint32_t m_keySize = 0;
    Result m_result = Result::NotFound;
    Clock::time_point m_until;
    std::uint64_t m_generation = 0;  // Set by `keep`: replies of another one are forgotten.
  };

  // Keeps replies of up to `longest` bytes with their keys, in four times `groups` places, `groups`
  // being a power of two.
  AnswerCache(std::size_t groups, std::size_t longest) : m_groups(groups), m_longest(longest) {}

  // The reply to `key` that holds at `now`; null when none is known. Valid until the next call.
  [[nodiscard]] const Entry* find(std::string_view key, Clock::time_point now) const;
  // Keeps `entry`, unless it is too long.
  void keep(Entry entry);
  // Forgets all replies. Their room is kept for the next ones.
  void clear() noexcept { ++m_generation; }

 private:
  static constexpr std::size_t s_places = 4;

  struct Group {
    std::array<std::size_t, s_places> hashes{};  // Of the keys, compared first.
    std::array<Entry, s_places> entries;
    std::size_t next = 0;  // The place that is taken next.
  };

  const std::size_t m_groups;
  const std::size_t m_longest;
  std::uint64_t m_generation = 1;
  std::vector<Group> m_content;  // Empty until the first reply is kept.
};

}  // namespace Tessel::Serve

#endif
