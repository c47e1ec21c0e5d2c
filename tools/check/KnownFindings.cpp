// The findings that somebody has accepted.
#include "check/KnownFindings.h"

#include <string_view>

#include "failure/Failure.h"
#include "files/Lines.h"
#include "files/TableFile.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

constexpr std::string_view s_none = "-";

// `text` without what would end it too early: blanks at its ends, and "#" after a blank; all blanks
// where `isWord`.
std::string s_escaped(std::string_view text, bool isWord) {
  std::string escaped;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isEdge = i == 0 || i + 1 == text.size();
    if (text[i] == ' ' && (isWord || isEdge)) {
      escaped += "\\x20";
    } else if (text[i] == '#' && (i == 0 || text[i - 1] == ' ')) {
      escaped += "\\x23";
    } else {
      escaped += text[i];
    }
  }
  return escaped;
}

// Where the note of `line` begins: at the first "#" after a blank.
std::size_t s_noteStart(std::string_view line) {
  std::size_t at = line.find('#');
  while (at != std::string_view::npos && s_blanks.find(line[at - 1]) == std::string_view::npos) {
    at = line.find('#', at + 1);
  }
  return at;
}

// Takes the first word out of `text`.
std::string_view s_takeWord(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find_first_of(s_blanks));
  text = trimmed(text.substr(word.size()));
  return word;
}

}  // namespace

std::string knownLineOf(const Finding& finding) {
  const std::string table =
      finding.table.empty() ? std::string(s_none) : s_escaped(printable(finding.table), true);
  const std::string& about = finding.address.empty() ? finding.what : finding.address;
  return std::string(finding.kind) + " " + table + " " + s_escaped(printable(about), false);
}

KnownFindings::KnownFindings(const std::string& path)
    : m_file(path == "-" ? "standard input" : path) {
  Lines lines(path, m_file);
  LineFaults faults(m_file);
  std::string_view line;
  while (lines.next(line)) {
    line = trimmed(line);
    if (line.empty() || line.starts_with('#')) continue;
    const std::size_t end = s_noteStart(line);
    std::string_view rest = trimmed(line.substr(0, end));
    const std::string kind(s_takeWord(rest));
    const std::string table(s_takeWord(rest));
    const std::string_view note =
        end == std::string_view::npos ? std::string_view() : trimmed(line.substr(end + 1));
    if (rest.empty()) {
      faults.add(lines.number(), "it is not FINDING TABLE ADDRESS # NOTE");
    } else if (note.empty()) {
      faults.add(lines.number(), "it has no note: say why at its end, after a blank and '#'");
    } else {
      std::string known = kind;
      known.append(" ").append(table).append(" ").append(rest);
      const auto [first, isNew] = m_known.try_emplace(
          known, Known{lines.number(), table == s_none ? "" : table, std::string(note), false});
      if (!isNew) {
        faults.add(lines.number(),
                   "it is in line " + std::to_string(first->second.line) + " already");
      }
    }
  }
  faults.refuse("it has bad lines", "nothing was checked; correct the lines and try again");
}

std::optional<std::string> KnownFindings::noteOf(const Finding& finding) {
  const auto known = m_known.find(knownLineOf(finding));
  if (known == m_known.end()) return std::nullopt;
  known->second.isMet = true;
  return known->second.note;
}

void KnownFindings::reportUnmet(
    const std::function<bool(const std::string& table)>& isChecked) const {
  std::map<std::size_t, std::string> unmet;  // In the order of the lines.
  for (const auto& [text, known] : m_known) {
    if (!known.isMet && isChecked(known.table)) unmet.emplace(known.line, text);
  }
  for (const auto& [line, text] : unmet) {
    say("warning: " + m_file + ":" + std::to_string(line) + ": no finding is '" + text +
        "' any more: remove the line");
  }
}

}  // namespace Tessel::Tool
