// Replies that are given again.
#include "serve/answer/AnswerCache.h"

#include <functional>
#include <utility>

namespace Tessel::Serve {

const AnswerCache::Entry* AnswerCache::find(std::string_view key, Clock::time_point now) const {
  if (m_content.empty()) return nullptr;
  const std::size_t hash = std::hash<std::string_view>()(key);
  const Group& group = m_content[hash & (m_groups - 1)];
  for (std::size_t place = 0; place < s_places; ++place) {
    if (group.hashes[place] != hash) continue;
    const Entry& entry = group.entries[place];
    if (entry.m_generation != m_generation || entry.key() != key) continue;
    return now < entry.m_until ? &entry : nullptr;
  }
  return nullptr;
}

void AnswerCache::keep(Entry entry) {
  if (entry.m_text.size() > m_longest) return;
  if (m_content.empty()) m_content.resize(m_groups);
  const std::size_t hash = std::hash<std::string_view>()(entry.key());
  Group& group = m_content[hash & (m_groups - 1)];
  std::size_t place = group.next;
  for (std::size_t i = 0; i < s_places; ++i) {
    if (group.hashes[i] == hash && group.entries[i].key() == entry.key()) place = i;
  }
  if (place == group.next) group.next = (group.next + 1) % s_places;
  group.hashes[place] = hash;
  entry.m_generation = m_generation;
  group.entries[place] = std::move(entry);
}

}  // namespace Tessel::Serve
