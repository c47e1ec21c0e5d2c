// Numbers for addresses, of which all spellings have the same.
#ifndef TSL_TOOLS_TABLES_SPELLINGINDEX_H
#define TSL_TOOLS_TABLES_SPELLINGINDEX_H

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tables/AddressIndex.h"

namespace Tessel::Tool {

// As AddressIndex, but two texts are equal if their comparisonKey() is. One thread.
class SpellingIndex {
 public:
  using Id = AddressIndex::Id;
  static constexpr Id s_none = AddressIndex::s_none;

  // The number of `text`, which is added when no spelling of it is there yet. Throws
  // std::length_error when there are too many, and what addressKey() throws.
  AddressIndex::Added add(std::string_view text);
  // The number of `text`, or `s_none`.
  [[nodiscard]] Id find(std::string_view text) const;
  // The text as it was added first. Valid until the next call of `add`.
  [[nodiscard]] std::string_view text(Id id) const;
  [[nodiscard]] Id size() const noexcept { return m_keys.size(); }

 private:
  AddressIndex m_keys;  // With the texts as they are where they differ in letter case only.
  std::unordered_map<Id, std::string> m_texts;  // The others.
};

}  // namespace Tessel::Tool

#endif
