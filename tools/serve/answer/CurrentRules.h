// The rules of aliases as they are now.
#ifndef TSL_TOOLS_SERVE_ANSWER_CURRENTRULES_H
#define TSL_TOOLS_SERVE_ANSWER_CURRENTRULES_H

#include <cstdint>
#include <string>

#include "serve/base/Settings.h"
#include "serve/image/RuleImage.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// Follows the table of rules and the time, for less than a request costs. One thread.
class CurrentRules {
 public:
  // `tables` must outlive the object.
  explicit CurrentRules(const Tables& tables) : m_tables(tables) {}

  // Brings the rules up to date. Why nobody knows them at `now`; empty when they are known, or the
  // database has no table of them.
  std::string refresh(Clock::time_point now);
  [[nodiscard]] bool hasTable() const { return m_table != nullptr; }
  [[nodiscard]] const Rules& rules() const { return m_rules; }
  // Becomes higher whenever an answer may be another one: with each new image, and each alias that
  // expires.
  [[nodiscard]] std::uint64_t number() const { return m_number; }
  // Lets go of the image.
  void sweep();

 private:
  const Tables& m_tables;
  std::uint64_t m_changes{};  // Of the tables, when `m_table` was looked for.
  TablePointer m_table;
  std::uint64_t m_generation = 0;
  std::size_t m_expired{};
  Clock::time_point m_until = Clock::time_point::min();  // `m_rules` is right before that.
  Rules m_rules;
  std::uint64_t m_number{};
};

}  // namespace Tessel::Serve

#endif
