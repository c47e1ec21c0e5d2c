// The findings of `check` that somebody has looked at and accepted: a file of them, with notes.
#ifndef TSL_TOOLS_CHECK_KNOWNFINDINGS_H
#define TSL_TOOLS_CHECK_KNOWNFINDINGS_H

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "check/Findings.h"

namespace Tessel::Tool {

// The line of `finding` in such a file, without a note: "FINDING TABLE ADDRESS", with "-" for no
// table, and the description where there is no address. What would not be read back is escaped.
std::string knownLineOf(const Finding& finding);

// A file of lines "FINDING TABLE ADDRESS # NOTE". One thread.
class KnownFindings {
 public:
  // Reads the file `path`, "-" being standard input. Throws Failure, `BadData`, when it cannot be
  // read, or has a bad line.
  explicit KnownFindings(const std::string& path);

  // The note of `finding`; nothing when the file does not have it.
  std::optional<std::string> noteOf(const Finding& finding);

  // Reports the lines that noteOf() was never asked for, of the tables that `isChecked` names; its
  // argument is empty for lines without a table.
  void reportUnmet(const std::function<bool(const std::string& table)>& isChecked) const;

 private:
  struct Known {
    std::size_t line;
    std::string table;  // Empty where there is none.
    std::string note;
    bool isMet;
  };

  std::string m_file;                    // For messages.
  std::map<std::string, Known> m_known;  // By what knownLineOf() gives.
};

}  // namespace Tessel::Tool

#endif
