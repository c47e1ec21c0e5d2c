// Addresses, domains and times as a person gives them.
#include "cli/AddressInput.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <system_error>

#include "base/Exception.h"
#include "base/sizes.h"
#include "tables/AliasRule.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Longer lines of input are not addresses, whatever they contain.
constexpr std::size_t s_maxLine = 4_KiB;

using Answer = std::function<void(const EmailAddress&)>;

// Reads a line of standard input without its end, of which no more than a little over `s_maxLine`
// bytes are kept. False at the end of the input. Throws Failure when it cannot be read.
bool s_readLine(std::string& line) {
  line.clear();
  int byte = std::getc(stdin);
  if (byte == EOF && std::ferror(stdin) == 0) return false;
  while (byte != EOF && byte != '\n') {
    if (line.size() <= s_maxLine) line += static_cast<char>(byte);
    byte = std::getc(stdin);
  }
  if (std::ferror(stdin) != 0) {
    throw Failure(ExitCode::Unavailable, "reading standard input", "it cannot be read",
                  "name a readable file or pipe");
  }
  return true;
}

// Calls `take` for each line of standard input that is not blank, with its place for messages.
template <class Take>
void s_forEachLine(Take take) {
  std::string line;
  for (std::size_t number = 1; s_readLine(line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    take(line, "standard input, line " + std::to_string(number) + ": ");
  }
}

// `failure`, which is about what is at `place`.
Failure s_at(const std::string& place, const Failure& failure) {
  return {failure.code(), place + failure.subject(), failure.why(), failure.hint()};
}

// Answers the text of a list. False when it is not an address, which is reported with `place`
// before the message.
bool s_answer(const std::string& text, const std::string& place, const Answer& answer) {
  EmailAddress address;
  try {
    address = parseAddress(text, false);
  } catch (const Failure& failure) {
    report(s_at(place, failure));
    return false;
  }
  answer(address);
  return true;
}

bool s_answerInput(const Answer& answer) {
  bool good = true;
  s_forEachLine([&](const std::string& line, const std::string& place) {
    good = s_answer(line, place, answer) && good;
  });
  return good;
}

}  // namespace

EmailAddress parseAddress(const std::string& text, bool allowNoDomain) {
  const auto refuse = [&text](const std::string& why) {
    return Failure(ExitCode::BadData, "address '" + text.substr(0, 100) + "'", why,
                   text.starts_with('@') ? "write it as NAME@DOMAIN; in a mask, '*" +
                                               text.substr(0, 100) + "' is the whole domain"
                                         : "write it as NAME@DOMAIN");
  };
  // The parser stops at a NUL, which standard input may hold.
  if (text.find('\0') != std::string::npos) throw refuse("it contains a NUL character");
  try {
    EmailAddress address = EmailAddress::rfc5321Parse(text, allowNoDomain);
    if (address.isNull()) throw refuse("it is empty");
    return address;
  } catch (const Exception& exception) {
    throw refuse(reasonOf(exception));
  }
}

std::string parseDomain(const std::string& text) {
  const auto refuse = [&text](const std::string& why) {
    return Failure(ExitCode::BadData, "domain '" + text.substr(0, 100) + "'", why,
                   "write it like example.com");
  };
  if (text.empty()) throw refuse("it is empty");
  if (text.find_first_of("'\\%\"") != std::string::npos) {
    throw refuse("it contains a quote, a backslash or a percent sign");
  }
  try {
    return EmailAddress::create("x", text, false).domain();
  } catch (const Exception& exception) {
    throw refuse(reasonOf(exception));
  }
}

std::string parsePastTime(const std::string& name, const std::string& text) {
  namespace chrono = std::chrono;
  using chrono::days;
  const chrono::sys_seconds now = chrono::floor<chrono::seconds>(chrono::system_clock::now());
  if (const auto time = parseTime(text)) return timeText(*time);
  if (text == "today") return timeText(chrono::floor<days>(now));
  if (text == "yesterday") return timeText(chrono::floor<days>(now) - days(1));
  const std::map<char, chrono::seconds> units{{'s', chrono::seconds(1)},
                                              {'m', chrono::minutes(1)},
                                              {'h', chrono::hours(1)},
                                              {'d', days(1)},
                                              {'w', chrono::weeks(1)}};
  std::uint32_t count = 0;
  const char* const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, count);
  if (error == std::errc() && end + 1 == last && units.contains(*end)) {
    // Years have no more than four digits, and no sign.
    return timeText(std::max(now - count * units.at(*end), chrono::sys_seconds()));
  }
  throw Failure(ExitCode::Usage, name + " '" + text + "'", "it is not a time",
                "write it in UTC like '2026-12-31 23:59:59' or 2026-12-31, or as today, yesterday,"
                " 30m, 2h, 3d or 1w ago");
}

void forEachText(const std::vector<std::string>& arguments,
                 const std::function<void(const std::string&)>& take) {
  for (const std::string& text : arguments) {
    if (text != "-") {
      take(text);
      continue;
    }
    s_forEachLine([&](const std::string& line, const std::string& place) {
      try {
        take(line);
      } catch (const Failure& failure) {
        throw s_at(place, failure);
      }
    });
  }
}

bool isSingle(const std::vector<std::string>& arguments) {
  return arguments.size() == 1 && arguments[0] != "-";
}

ExitCode forEachAddress(const std::vector<std::string>& arguments, const Answer& answer) {
  if (isSingle(arguments)) {
    answer(parseAddress(arguments[0], false));
    return ExitCode::Done;
  }
  bool good = true;
  for (const std::string& text : arguments) {
    good = (text == "-" ? s_answerInput(answer) : s_answer(text, "", answer)) && good;
  }
  return good ? ExitCode::Done : ExitCode::BadData;
}

}  // namespace Tessel::Tool
