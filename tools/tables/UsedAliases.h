// The aliases that mail servers have asked for, as the lookup service keeps them in a file.
#ifndef TSL_TOOLS_TABLES_USEDALIASES_H
#define TSL_TOOLS_TABLES_USEDALIASES_H

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "tables/AddressIndex.h"

namespace Tessel::Tool {

// A file has a line with the time since when it counts, the time until when, and the number of
// aliases; then a line for each, in their order: "TABLE KEY", the SQL name of the table and the key
// of the address (see AddressKey.h). An alias costs its length and some 20 bytes. One thread.
class UsedAliases {
 public:
  using Time = std::chrono::sys_seconds;

  // None since `since`.
  explicit UsedAliases(Time since) : m_since(since), m_until(since) {}
  // Those of the file with this content. Throws std::runtime_error when it is not a whole one.
  explicit UsedAliases(std::string_view content);

  [[nodiscard]] Time since() const noexcept { return m_since; }
  [[nodiscard]] Time until() const noexcept { return m_until; }
  // True for the SQL name of a table and the key of an alias that was asked for.
  [[nodiscard]] bool has(const std::string& table, std::string_view key) const;

  // Adds an alias, given as its line; true when it is new. Requires: it has a blank.
  bool add(std::string_view line);
  // Leaves out those that `isThere` denies.
  using IsThere = std::function<bool(const std::string& table, std::string_view key)>;
  void keep(const IsThere& isThere);
  // Calls `take` with the parts of the file, which counts until `until` now.
  void write(Time until, const std::function<void(std::string_view)>& take);

 private:
  [[nodiscard]] std::string header() const;

  Time m_since;
  Time m_until;
  std::map<std::string, AddressIndex, std::less<>> m_keys;  // By table.
};

}  // namespace Tessel::Tool

#endif
