// What is wrong with the tables: findings, for people and programs.
#ifndef TSL_TOOLS_CHECK_FINDINGS_H
#define TSL_TOOLS_CHECK_FINDINGS_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "failure/Failure.h"
#include "terminal/Output.h"

namespace Tessel::Tool {

enum class Severity {
  Notice,   // Worth a look.
  Warning,  // Some answer is not what one would expect.
  Error,    // Mail is lost or rejected, or a table cannot be read.
};

struct Finding {
  Severity severity;
  const char* kind;     // A stable name, for programs.
  std::string table;    // Empty where it is about the database or the configuration.
  std::string address;  // The address or text that it is about.
  std::string what;
  std::string command;                 // What to run next; may be empty.
  std::vector<std::string> addresses;  // Others that it is about.
};

// Writes findings as they are made. One thread.
class Findings {
 public:
  // `output` must outlive the object.
  explicit Findings(Output& output) : m_list(output) {}

  void add(const Finding& finding);
  // Ends the list and reports how many there were.
  void end();
  // `BadData` when there was an error or a warning.
  [[nodiscard]] ExitCode code() const;

 private:
  [[nodiscard]] std::size_t count(Severity severity) const {
    return m_counts.at(static_cast<std::size_t>(severity));
  }

  ItemList m_list;
  std::array<std::size_t, 3> m_counts{};
};

// The command line of this tool with `words` on the SQL table `table`; empty when no option names
// that table.
std::string commandOn(const std::string& table, const std::string& words);

// `text` as one word of a shell, safe to show.
std::string shellWord(std::string_view text);

// "a, b, c", of which the later ones are only counted when there are many.
std::string listed(const std::vector<std::string>& addresses);

// The statement that shows the row with `text` in `column`.
std::string selectRow(const std::string& table, const std::string& column, std::string_view text);

}  // namespace Tessel::Tool

#endif
