// The rules of aliases as they are now.
#include "serve/answer/CurrentRules.h"

#include <algorithm>

#include "tables/OwnTables.h"

namespace Tessel::Serve {

namespace {

using std::chrono::system_clock;

// The clock of the wall may be set: it is looked at this often.
constexpr Clock::duration s_look = 1s;

}  // namespace

std::string CurrentRules::refresh(Clock::time_point now) {
  const std::uint64_t changes = m_tables.changes();
  if (changes != m_changes) {
    TablePointer table = m_tables.find(Tool::s_rules);
    if (table != m_table) {
      ++m_number;
      m_rules = {};
      m_until = Clock::time_point::min();
    }
    m_table = std::move(table);
    m_changes = changes;
  }
  if (m_table == nullptr) return "";
  const std::string_view why = m_table->whyUnable(now, m_tables.settings());
  if (!why.empty()) return "the rules of aliases: " + std::string(why);
  const std::uint64_t generation = m_table->generation();
  if (generation == m_generation && now < m_until) return "";
  const ImagePointer image = m_table->image();
  // Tests ask as if it were another time.
  const system_clock::time_point wall =
      system_clock::now() + std::chrono::duration_cast<system_clock::duration>(now - Clock::now());
  m_rules = {{image, &image->rules()}, std::chrono::floor<std::chrono::seconds>(wall)};
  const std::size_t expired = m_rules.image->expired(m_rules.now);
  if (generation != m_generation || expired != m_expired) ++m_number;
  m_generation = generation;
  m_expired = expired;
  const auto next = m_rules.image->nextExpiry(m_rules.now);
  m_until = now + s_look;
  if (next) m_until = std::min<Clock::time_point>(m_until, now + (*next - wall));
  return "";
}

void CurrentRules::sweep() {
  m_rules.image.reset();
  m_until = Clock::time_point::min();
}

}  // namespace Tessel::Serve
