// Numbers for addresses: a compact set of texts, for tables of millions of rows.
#ifndef TSL_TOOLS_TABLES_ADDRESSINDEX_H
#define TSL_TOOLS_TABLES_ADDRESSINDEX_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tessel::Tool {

// Texts of addresses and their numbers, from 0 in the order in which they were added. Two texts are
// equal if they differ in the case of ASCII letters only, so texts as `EmailAddress::address()`
// gives them are equal exactly if the addresses are. A text costs its length and some 20 bytes. One
// thread.
class AddressIndex {
 public:
  using Id = std::uint32_t;
  // Means "not there".
  static constexpr Id s_none = UINT32_MAX;

  struct Added {
    Id id;
    bool isNew;
  };

  // The number of `text`, which is added when it is not there yet. Throws std::length_error when
  // there are too many.
  Added add(std::string_view text);
  // The number of `text`, or `s_none`.
  [[nodiscard]] Id find(std::string_view text) const noexcept;
  // The text as it was added first. Valid until the next call of `add`.
  [[nodiscard]] std::string_view text(Id id) const;
  [[nodiscard]] Id size() const noexcept { return static_cast<Id>(m_ends.size()); }
  // Bytes of memory that it takes.
  [[nodiscard]] std::size_t bytes() const noexcept {
    return m_slots.capacity() * sizeof(m_slots[0]) + m_filter.capacity() * sizeof(m_filter[0]) +
           m_ends.capacity() * sizeof(m_ends[0]) + m_texts.capacity();
  }

 private:
  // Where `text` with `hash` is, or the free slot that it would go to.
  [[nodiscard]] std::size_t slotOf(std::string_view text, std::uint32_t hash) const noexcept;
  // The place of texts with `hash` in the filter.
  [[nodiscard]] std::size_t filterWord(std::uint32_t hash) const noexcept;
  static std::uint64_t filterBit(std::uint32_t hash) noexcept;
  void grow();

  // Open addressing: hash in the upper half, number + 1 in the lower one; 0 is free. The size is a
  // power of two, and at least half of the slots are free, so that a search for what is not there
  // mostly ends at the first slot.
  std::vector<std::uint64_t> m_slots;
  // Has a bit set for each hash that is there. It is a small part of the slots, so the processor's
  // cache answers most searches for what is not there.
  std::vector<std::uint64_t> m_filter;
  std::vector<std::size_t> m_ends;  // Of the texts in `m_texts`.
  std::string m_texts;
};

}  // namespace Tessel::Tool

#endif
