// Numbers for addresses, of which all spellings have the same.
#include "tables/SpellingIndex.h"

#include "base/stringCompareNoCase.h"
#include "tables/AddressKey.h"

namespace Tessel::Tool {

AddressIndex::Added SpellingIndex::add(std::string_view text) {
  const std::string key = comparisonKey(text);
  // Nearly all texts differ from their keys in ASCII letter case at most, which the index ignores.
  const bool isPlain = stringCompareNoCase(text, key, 0);
  const AddressIndex::Added added = m_keys.add(isPlain ? text : key);
  if (added.isNew && !isPlain) m_texts.emplace(added.id, text);
  return added;
}

SpellingIndex::Id SpellingIndex::find(std::string_view text) const {
  return m_keys.find(comparisonKey(text));
}

std::string_view SpellingIndex::text(Id id) const {
  const auto other = m_texts.find(id);
  return other != m_texts.end() ? other->second : m_keys.text(id);
}

}  // namespace Tessel::Tool
