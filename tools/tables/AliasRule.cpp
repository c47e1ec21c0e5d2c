// Rules as the table and people have them.
#include "tables/AliasRule.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "tables/RowReader.h"

namespace Tessel::Tool {

namespace {

constexpr std::array<std::pair<Writers, const char*>, 5> s_writers{
    {{Writers::Anyone, "anyone"},
     {Writers::Authenticated, "authenticated"},
     {Writers::Domain, "domain"},
     {Writers::Members, "members"},
     {Writers::Listed, "listed"}}};

constexpr char s_noteWord[] = "note=";

std::set<EmailAddress> s_addresses(const std::string& text) {
  return text.empty() ? std::set<EmailAddress>()
                      : EmailAddress::rfc5322ParseSet(text, false, false);
}

EmailAddress s_address(const std::string& text) {
  return text.empty() ? EmailAddress() : EmailAddress::rfc5321Parse(text, false);
}

// Blanks end a word of a rule.
std::string s_encoded(const std::string& text) {
  std::string encoded;
  for (const char c : text) {
    if (c == ' ' || c == '%') {
      encoded += c == ' ' ? "%20" : "%25";
    } else {
      encoded += c;
    }
  }
  return encoded;
}

std::string s_decoded(std::string_view text) {
  std::string decoded;
  for (; !text.empty(); text.remove_prefix(1)) {
    const bool isBlank = text.starts_with("%20");
    decoded += isBlank ? ' ' : text.front();
    if (isBlank || text.starts_with("%25")) text.remove_prefix(2);
  }
  return decoded;
}

Failure s_noRule(const std::string& word, const std::string& why) {
  return {ExitCode::BadData, "rule '" + word + "'", why,
          "write writers=, listed=, owners=, expires=, contact= and, at the end, note="};
}

void s_take(AliasRule& rule, std::string_view name, const std::string& value) {
  if (name == "writers") {
    const auto writers = parseWriters(value);
    if (!writers) throw s_noRule(value, "there are no such writers");
    rule.writers = *writers;
  } else if (name == "listed") {
    rule.listed = s_addresses(value);
  } else if (name == "owners") {
    rule.owners = s_addresses(value);
  } else if (name == "contact") {
    rule.contact = s_address(value);
  } else if (name == "expires") {
    rule.expires = parseTime(value);
    if (!rule.expires) throw s_noRule(value, "it is not a time such as 2026-12-31 23:59:59");
  } else {
    throw s_noRule(std::string(name), "there is no such word");
  }
}

}  // namespace

const char* textOf(Writers writers) {
  return s_writers[static_cast<std::size_t>(writers)].second;
}

std::optional<Writers> parseWriters(std::string_view text) {
  for (const auto& [writers, name] : s_writers) {
    if (text == name) return writers;
  }
  return std::nullopt;
}

std::optional<AliasRule> readRule(const TextRow& row, std::size_t first) try {
  const auto writers = parseWriters(row[first]);
  if (!writers) return std::nullopt;
  AliasRule rule{*writers,       s_addresses(row[first + 1]), s_addresses(row[first + 2]), {},
                 row[first + 4], s_address(row[first + 5])};
  if (row[first + 3].empty()) return rule;
  rule.expires = parseTime(row[first + 3]);
  if (!rule.expires) return std::nullopt;
  return rule;
} catch (const Exception&) {
  return std::nullopt;
}

std::string timeText(std::chrono::sys_seconds time) {
  const auto days = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(days);
  const std::chrono::hh_mm_ss clock(time - days);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text.data();
}

std::optional<std::chrono::sys_seconds> parseTime(const std::string& text) {
  int year = 0;
  unsigned int month = 0;
  unsigned int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  // NOLINTNEXTLINE(cert-err34-c): what is read is compared with the text below
  const int count = std::sscanf(text.c_str(), "%4d-%2u-%2u%*1[ T]%2d:%2d:%2d", &year, &month, &day,
                                &hour, &minute, &second);
  const std::chrono::year_month_day date(std::chrono::year{year}, std::chrono::month{month},
                                         std::chrono::day{day});
  if ((count != 3 && count != 6) || !date.ok()) return std::nullopt;
  const std::chrono::sys_seconds time = std::chrono::sys_days(date) + std::chrono::hours(hour) +
                                        std::chrono::minutes(minute) + std::chrono::seconds(second);
  std::string same = timeText(time);
  if (count == 3) same.resize(same.find(' '));
  std::string given = text;
  if (given.ends_with('Z')) given.pop_back();
  if (const std::size_t separator = given.find('T'); separator != std::string::npos) {
    given[separator] = ' ';
  }
  return given == same ? std::optional(time) : std::nullopt;
}

std::string ruleText(const AliasRule& rule) {
  std::string text = std::string("writers=") + textOf(rule.writers);
  const auto add = [&text](const char* name, const std::string& value) {
    if (!value.empty()) text.append(" ").append(name).append("=").append(s_encoded(value));
  };
  add("listed", joined(rule.listed));
  add("owners", joined(rule.owners));
  if (rule.expires) add("expires", timeText(*rule.expires).replace(10, 1, "T") + "Z");
  add("contact", rule.contact.address());
  if (!rule.note.empty()) text.append(" ").append(s_noteWord).append(rule.note);
  return text;
}

AliasRule parseRule(const std::string& text) {
  AliasRule rule;
  std::string_view rest = text;
  while (!rest.empty()) {
    if (rest.starts_with(s_noteWord)) {
      rule.note = rest.substr(std::string_view(s_noteWord).size());
      break;
    }
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(rest.size(), word.size() + 1));
    if (word.empty()) continue;
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos) throw s_noRule(std::string(word), "it has no '='");
    try {
      s_take(rule, word.substr(0, equals), s_decoded(word.substr(equals + 1)));
    } catch (const Exception& exception) {
      throw s_noRule(std::string(word), reasonOf(exception));
    }
  }
  return rule;
}

}  // namespace Tessel::Tool
