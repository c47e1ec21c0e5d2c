// Numbers for addresses.
#include "tables/AddressIndex.h"

#include <cstring>
#include <stdexcept>

#include "base/stringCompareNoCase.h"

namespace Tessel::Tool {

namespace {

constexpr std::size_t s_firstSlots = 1024;
// Bits of the filter for each slot: one in sixteen of them is set at most.
constexpr std::size_t s_filterBits = 8;
constexpr std::size_t s_wordBits = 64;
// The bit that distinguishes small ASCII letters from capitals, in each byte. Folding more than
// letters with it makes a hash no worse, and is done eight bytes at a time.
constexpr std::uint64_t s_caseBits = 0x2020202020202020U;

// Spreads what differs in a few digits, as numbered addresses do, over all bits.
std::uint64_t s_mix(std::uint64_t state, std::uint64_t word) {
  state = (state ^ word) * 0xff51afd7ed558ccdU;
  state = (state ^ (state >> 33U)) * 0xc4ceb9fe1a85ec53U;
  return state ^ (state >> 29U);
}

std::uint32_t s_hash(std::string_view text) {
  std::uint64_t state = text.size();
  while (text.size() >= sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data(), sizeof(word));
    state = s_mix(state, word | s_caseBits);
    text.remove_prefix(sizeof(word));
  }
  std::uint64_t word = 0;
  if (!text.empty()) std::memcpy(&word, text.data(), text.size());
  return static_cast<std::uint32_t>(s_mix(state, word | s_caseBits) >> 32U);
}

}  // namespace

AddressIndex::Added AddressIndex::add(std::string_view text) {
  if (m_slots.size() < 2 * (m_ends.size() + 1)) grow();
  const std::uint32_t hash = s_hash(text);
  std::uint64_t& slot = m_slots[slotOf(text, hash)];
  if (slot != 0) return {static_cast<Id>(slot) - 1, false};
  if (m_ends.size() >= s_none - 1) throw std::length_error("too many addresses");
  m_texts += text;
  m_ends.push_back(m_texts.size());
  slot = std::uint64_t{hash} << 32U | m_ends.size();
  m_filter[filterWord(hash)] |= filterBit(hash);
  return {static_cast<Id>(m_ends.size() - 1), true};
}

AddressIndex::Id AddressIndex::find(std::string_view text) const noexcept {
  if (m_slots.empty()) return s_none;
  const std::uint32_t hash = s_hash(text);
  if ((m_filter[filterWord(hash)] & filterBit(hash)) == 0) return s_none;
  const std::uint64_t slot = m_slots[slotOf(text, hash)];
  return slot == 0 ? s_none : static_cast<Id>(slot) - 1;
}

std::string_view AddressIndex::text(Id id) const {
  const std::size_t start = id == 0 ? 0 : m_ends[id - 1];
  return std::string_view(m_texts).substr(start, m_ends[id] - start);
}

std::size_t AddressIndex::slotOf(std::string_view text, std::uint32_t hash) const noexcept {
  const std::size_t mask = m_slots.size() - 1;
  std::size_t at = hash & mask;
  while (m_slots[at] != 0) {
    const std::uint64_t slot = m_slots[at];
    const bool maybe = static_cast<std::uint32_t>(slot >> 32U) == hash;
    if (maybe && stringCompareNoCase(this->text(static_cast<Id>(slot) - 1), text, 0)) break;
    at = (at + 1) & mask;
  }
  return at;
}

std::size_t AddressIndex::filterWord(std::uint32_t hash) const noexcept {
  return (hash / s_wordBits) & (m_filter.size() - 1);
}

std::uint64_t AddressIndex::filterBit(std::uint32_t hash) noexcept {
  return std::uint64_t{1} << (hash % s_wordBits);
}

void AddressIndex::grow() {
  const std::vector<std::uint64_t> old = std::move(m_slots);
  m_slots.assign(old.empty() ? s_firstSlots : 2 * old.size(), 0);
  m_filter.assign(m_slots.size() * s_filterBits / s_wordBits, 0);
  const std::size_t mask = m_slots.size() - 1;
  for (const std::uint64_t slot : old) {
    if (slot == 0) continue;
    const auto hash = static_cast<std::uint32_t>(slot >> 32U);
    m_filter[filterWord(hash)] |= filterBit(hash);
    std::size_t at = (slot >> 32U) & mask;
    while (m_slots[at] != 0) at = (at + 1) & mask;
    m_slots[at] = slot;
  }
}

}  // namespace Tessel::Tool
