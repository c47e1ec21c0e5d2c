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

class KnownFindings;

// How findings are written.
enum class FindingStyle {
  Whole,  // All there is to say.
  Known,  // As lines of a file of known findings, to which a note must be added.
};

// Writes findings as they are made. One thread.
class Findings {
 public:
  // Both must outlive the object. The findings that `known` has, unless it is null, are in JSON
  // only, and counted apart.
  explicit Findings(Output& output, KnownFindings* known = nullptr,
                    FindingStyle style = FindingStyle::Whole)
      : m_output(output), m_list(output), m_known(known), m_style(style) {}

  void add(const Finding& finding);
  // Ends the list and reports how many there were.
  void end();
  // `BadData` when there was an error or a warning that is not known.
  [[nodiscard]] ExitCode code() const;

 private:
  [[nodiscard]] std::size_t count(Severity severity) const {
    return m_counts.at(static_cast<std::size_t>(severity));
  }

  [[nodiscard]] std::string lineOf(const Finding& finding) const;

  Output& m_output;
  ItemList m_list;
  KnownFindings* m_known;  // May be null.
  FindingStyle m_style;
  std::size_t m_knownCount = 0;
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
