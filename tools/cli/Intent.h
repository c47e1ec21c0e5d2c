// The record of a change that no transaction covers: of whole tables, and of the configuration.
#ifndef TSL_TOOLS_CLI_INTENT_H
#define TSL_TOOLS_CLI_INTENT_H

#include <cstdint>
#include <exception>
#include <optional>
#include <string_view>
#include <vector>

#include "database/Connection.h"
#include "tables/History.h"

namespace Tessel::Tool {

// Recorded as begun when it is made, and as done or failed at its end: one that is interrupted
// between is seen. Without a history there is no record. One thread.
class Intent {
 public:
  // What to do when the database cannot take the record.
  enum class Without {
    Fail,  // The change is not made.
    Warn,  // It is made: what it changes is not in the database.
  };

  // Records `changes`, of which there may be none. Throws Exception or Failure with
  // `Without::Fail`.
  Intent(std::vector<RowChange> changes, Without without);
  // Records that it has failed, unless it is done. Never throws.
  ~Intent();
  Intent(const Intent&) = delete;
  Intent& operator=(const Intent&) = delete;

  // Records that it is done; that it could not is a warning. Records all of it when the history
  // was made meanwhile.
  void done() noexcept;

 private:
  void record(std::string_view outcome);
  void end(std::string_view outcome) noexcept;
  void warn(const std::exception& exception) const noexcept;

  std::vector<RowChange> m_changes;
  std::optional<Database::Connection> m_connection;
  std::uint64_t m_number = 0;   // Of the record; 0 for none.
  bool m_isUnrecorded = false;  // The database could not take it.
  bool m_isEnded = false;
};

}  // namespace Tessel::Tool

#endif
