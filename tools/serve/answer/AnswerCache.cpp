// Replies that are given again.
#include "serve/answer/AnswerCache.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

namespace Tessel::Serve {

namespace {

constexpr std::size_t s_fewestGroups = 64;
// Groups that are swept at once: at least so many, and at least such a part of all.
constexpr std::size_t s_sweepGroups = 1024;
constexpr std::size_t s_sweeps = 256;
// Entries that go for a new one at most, and groups that are searched for one that can go.
constexpr int s_mostVictims = 64;
constexpr int s_mostSearched = 256;
// A larger part of the memory than this is not given to one entry.
constexpr std::size_t s_largestPart = 16;
constexpr std::chrono::minutes s_keptUnused = 5min;

std::uint64_t s_hash(const AnswerCache::Source& source, std::string_view key) {
  // The tables' numbers are small; multiplied by a large odd number they differ in all bits.
  return std::hash<std::string_view>()(key) ^ source.table * 0x9e3779b97f4a7c15U;
}

}  // namespace

AnswerCache::~AnswerCache() {
  for (Group& group : m_groups) {
    for (EntryPointer& entry : group.entries) drop(entry);
  }
  resize(0);
}

const AnswerCache::Entry* AnswerCache::find(const Source& source, std::string_view key,
                                            Clock::time_point now) const {
  if (m_groups.empty()) return nullptr;
  const std::uint64_t hash = s_hash(source, key);
  const Group& group = m_groups[hash & (m_groups.size() - 1)];
  for (std::size_t place = 0; place < s_places; ++place) {
    if (group.hashes[place] != hash || group.entries[place] == nullptr) continue;
    Entry& entry = *group.entries[place];
    if (entry.m_source.table != source.table || entry.key() != key) continue;
    if (entry.m_source.image != source.image || now >= entry.m_until) return nullptr;
    entry.m_used = now;
    return &entry;
  }
  return nullptr;
}

void AnswerCache::keep(const Source& source, std::string_view key, std::string_view reply,
                       Result result, Clock::time_point until, Clock::time_point now) {
  const std::size_t size = sizeof(Entry) + key.size() + reply.size();
  if (size > m_budget.most() / s_largestPart) return;
  if (m_count >= 2 * m_groups.size()) resize(std::max(2 * m_groups.size(), s_fewestGroups));
  if (m_groups.empty()) return;
  auto* const block = static_cast<char*>(::operator new(size));
  EntryPointer entry(new (block) Entry);
  entry->m_source = source;
  entry->m_until = until;
  entry->m_used = now;
  entry->m_keySize = static_cast<std::uint32_t>(key.size());
  entry->m_replySize = static_cast<std::uint32_t>(reply.size());
  entry->m_result = result;
  std::memcpy(block + sizeof(Entry), key.data(), key.size());
  std::memcpy(block + sizeof(Entry) + key.size(), reply.data(), reply.size());
  const std::uint64_t hash = s_hash(source, key);
  Group& group = groupOf(hash);
  const std::size_t place = placeFor(group, source, key, hash);
  drop(group.entries[place]);
  if (!makeRoom(blockSize(block))) return;
  group.hashes[place] = hash;
  group.entries[place] = std::move(entry);
  ++m_count;
}

std::size_t AnswerCache::placeFor(const Group& group, const Source& source, std::string_view key,
                                  std::uint64_t hash) {
  // When each was used; a free place never was.
  const auto usedAt = [&group](std::size_t place) {
    const Entry* const entry = group.entries[place].get();
    return entry == nullptr ? Clock::time_point::min() : entry->m_used;
  };
  std::size_t oldest = 0;
  for (std::size_t place = 0; place < s_places; ++place) {
    const Entry* const entry = group.entries[place].get();
    if (entry != nullptr && group.hashes[place] == hash && entry->m_source.table == source.table &&
        entry->key() == key) {
      return place;
    }
    if (usedAt(place) < usedAt(oldest)) oldest = place;
  }
  return oldest;
}

// Takes `size` bytes of the budget. Others hold some of it, so that may fail.
bool AnswerCache::makeRoom(std::size_t size) {
  for (int i = 0; i < s_mostVictims; ++i) {
    if (m_budget.take(size)) return true;
    if (!dropOneOfNextGroup()) return false;
  }
  return false;
}

bool AnswerCache::dropOneOfNextGroup() {
  for (int i = 0; i < s_mostSearched; ++i) {
    Group& group = m_groups[m_victims++ & (m_groups.size() - 1)];
    EntryPointer* oldest = nullptr;
    for (EntryPointer& entry : group.entries) {
      if (entry != nullptr && (oldest == nullptr || entry->m_used < (*oldest)->m_used)) {
        oldest = &entry;
      }
    }
    if (oldest == nullptr) continue;
    drop(*oldest);
    return true;
  }
  return false;
}

void AnswerCache::drop(EntryPointer& entry) {
  if (entry == nullptr) return;
  m_budget.give(blockSize(entry.get()));
  entry.reset();
  --m_count;
}

void AnswerCache::sweep(Clock::time_point now) {
  const std::size_t step = std::max(s_sweepGroups, m_groups.size() / s_sweeps);
  const std::size_t end = std::min(m_groups.size(), m_swept + step);
  for (; m_swept < end; ++m_swept) {
    for (EntryPointer& entry : m_groups[m_swept].entries) {
      if (entry == nullptr) continue;
      if (now >= entry->m_until || now - entry->m_used >= s_keptUnused) drop(entry);
    }
  }
  if (m_swept < m_groups.size()) return;
  m_swept = 0;
  if (m_count == 0) {
    resize(0);
  } else if (m_count < m_groups.size() / 2 && m_groups.size() > s_fewestGroups) {
    resize(m_groups.size() / 2);
  }
}

// Changes the number of groups, if the budget allows it. An entry that finds no place in its new
// group goes.
void AnswerCache::resize(std::size_t groups) {
  if (groups != 0 && !m_budget.take(groups * sizeof(Group))) return;
  std::vector<Group> old(groups);
  old.swap(m_groups);
  m_swept = 0;
  for (Group& group : old) {
    for (std::size_t i = 0; i < s_places; ++i) {
      EntryPointer& entry = group.entries[i];
      if (entry == nullptr) continue;
      Group& home = groupOf(group.hashes[i]);
      const auto place = std::find(home.entries.begin(), home.entries.end(), nullptr);
      if (place == home.entries.end()) {
        drop(entry);
        continue;
      }
      home.hashes[static_cast<std::size_t>(place - home.entries.begin())] = group.hashes[i];
      *place = std::move(entry);
    }
  }
  m_budget.give(old.size() * sizeof(Group));
}

}  // namespace Tessel::Serve
