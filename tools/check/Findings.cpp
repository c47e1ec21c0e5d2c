// What is wrong with the tables.
#include "check/Findings.h"

#include <algorithm>

#include "check/KnownFindings.h"
#include "tables/AliasGraph.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Say.h"
#include "terminal/Terminal.h"

namespace Tessel::Tool {

namespace {

const char* s_text(Severity severity) {
  switch (severity) {
    case Severity::Notice:
      return "notice";
    case Severity::Warning:
      return "warning";
    case Severity::Error:
      return "error";
  }
  return "";
}

Tone s_toneOf(Severity severity) {
  switch (severity) {
    case Severity::Notice:
      return Tone::Plain;
    case Severity::Warning:
      return Tone::Doubtful;
    case Severity::Error:
      return Tone::Bad;
  }
  return Tone::Plain;
}

Json s_jsonOf(const Finding& finding) {
  Json document{{"severity", s_text(finding.severity)}, {"finding", finding.kind}};
  document["table"] = finding.table.empty() ? Json() : Json(printable(finding.table));
  document["address"] = finding.address.empty() ? Json() : Json(printable(finding.address));
  document["what"] = printable(finding.what);
  document["command"] = finding.command.empty() ? Json() : Json(printable(finding.command));
  Json addresses = Json::array();
  for (const std::string& address : finding.addresses) addresses.push_back(printable(address));
  document["addresses"] = addresses;
  return document;
}

std::string s_counted(std::size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

bool s_isPlain(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         std::string_view("@%+-_.,:/").find(c) != std::string_view::npos;
}

}  // namespace

void Findings::add(const Finding& finding) {
  const auto note = m_known == nullptr ? std::nullopt : m_known->noteOf(finding);
  ++(note ? m_knownCount : m_counts.at(static_cast<std::size_t>(finding.severity)));
  if (note && !m_output.isJson()) return;
  m_list.add(lineOf(finding), [&] {
    Json document = s_jsonOf(finding);
    if (m_known == nullptr) return document;
    document["known"] = note.has_value();
    document["note"] = note ? Json(printable(*note)) : Json();
    return document;
  });
}

std::string Findings::lineOf(const Finding& finding) const {
  if (m_style == FindingStyle::Known) return knownLineOf(finding) + "  #";
  return coloured(Stream::Output, s_toneOf(finding.severity), s_text(finding.severity)) + "\t" +
         finding.kind + "\t" + printable(finding.table) + "\t" + printable(finding.address) + "\t" +
         printable(finding.what) + "\t" + printable(finding.command);
}

void Findings::end() {
  m_list.end();
  const auto counted = [this](Severity severity) {
    const std::size_t number = count(severity);
    return coloured(Stream::Error, number == 0 ? Tone::Plain : s_toneOf(severity),
                    s_counted(number, s_text(severity)));
  };
  sayShown(counted(Severity::Error) + ", " + counted(Severity::Warning) + ", " +
           counted(Severity::Notice) +
           (m_known == nullptr ? "" : ", " + std::to_string(m_knownCount) + " known"));
}

ExitCode Findings::code() const {
  return count(Severity::Error) + count(Severity::Warning) == 0 ? ExitCode::Done
                                                                : ExitCode::BadData;
}

std::string commandOn(const std::string& table, const std::string& words) {
  const std::size_t underscore = table.find('_');
  if (underscore == std::string::npos) return "tsl-address-map " + words;
  const std::string name = table.substr(underscore + 1);
  const bool isNameable = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return s_isPlain(c) && (c == '_' || std::string_view("@%+-.,:/").find(c) == std::string::npos);
  });
  return isNameable ? "tsl-address-map --table " + name + " " + words : "";
}

std::string shellWord(std::string_view text) {
  if (!text.empty() && std::all_of(text.begin(), text.end(), s_isPlain)) return std::string(text);
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string listed(const std::vector<std::string>& addresses) {
  constexpr std::size_t most = 10;
  std::string text;
  for (std::size_t i = 0; i < std::min(most, addresses.size()); ++i) {
    text += (i == 0 ? "" : ", ") + addresses[i];
  }
  if (addresses.size() <= most) return text;
  return text + " and " + std::to_string(addresses.size() - most) + " more";
}

std::string selectRow(const std::string& table, const std::string& column, std::string_view text) {
  return "select * from " + quotedName(table) + " where " + column + "=" + literal(text) + ";";
}

}  // namespace Tessel::Tool
