// Reads the values of the service's options.
#include "serve/base/SettingsText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

#include "failure/Failure.h"

namespace Tessel::Serve {

namespace {

using std::chrono::milliseconds;

struct Unit {
  std::string_view name;
  milliseconds length;
};

constexpr std::array<Unit, 5> s_units{{{"ms", 1ms}, {"s", 1s}, {"m", 1min}, {"h", 1h}, {"d", 24h}}};

// So that no sum of times overflows.
constexpr std::uint64_t s_longestTime = milliseconds(24h * 10000).count();

[[noreturn]] void s_refuse(const std::string& option, const std::string& text,
                           const std::string& hint) {
  throw Tool::Failure(Tool::ExitCode::Usage, option, "'" + text + "' is not a value for it", hint);
}

// Reads the number that `text` begins with, and takes it away. False when there is none.
bool s_takeNumber(std::string_view& text, std::uint64_t& number) {
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(read.ptr - text.data()));
  return true;
}

}  // namespace

milliseconds parseTime(const std::string& option, const std::string& text, milliseconds least) {
  std::uint64_t number{};
  std::string_view rest = text;
  if (s_takeNumber(rest, number)) {
    for (const Unit& unit : s_units) {
      const auto length = static_cast<std::uint64_t>(unit.length.count());
      if (rest != unit.name || number > s_longestTime / length) continue;
      const milliseconds time(number * length);
      if (time >= least) return time;
    }
  }
  s_refuse(option, text,
           "give a number with its unit, as 250ms, 1s, 5m, 1h or 2d, and at least " +
               std::to_string(least.count()) + "ms");
}

std::string timeText(milliseconds time) {
  const auto unit = std::find_if(s_units.rbegin(), s_units.rend(), [time](const Unit& candidate) {
    return time % candidate.length == 0ms;
  });
  return std::to_string(time / unit->length).append(unit->name);
}

std::uint64_t parseNumber(const std::string& option, const std::string& text, std::uint64_t least,
                          std::uint64_t most) {
  std::uint64_t number{};
  std::string_view rest = text;
  if (s_takeNumber(rest, number) && rest.empty() && number >= least && number <= most) {
    return number;
  }
  s_refuse(option, text,
           "give a number from " + std::to_string(least) + " to " + std::to_string(most));
}

std::size_t parseSize(const std::string& option, const std::string& text, std::size_t least) {
  static constexpr std::string_view s_sizeUnits = "KMGT";
  static constexpr std::uint64_t s_largest = 1ULL << 50U;
  std::uint64_t number{};
  std::string_view rest = text;
  if (s_takeNumber(rest, number) && number <= s_largest && rest.size() <= 1) {
    const std::size_t unit = rest.empty() ? 0 : s_sizeUnits.find(rest) + 1;
    const bool isUnit = rest.empty() || unit != 0;
    if (isUnit && number <= s_largest >> (10 * unit) && number << (10 * unit) >= least) {
      return number << (10 * unit);
    }
  }
  s_refuse(option, text, "give a size as 512M or 2G, and at least " + std::to_string(least));
}

ExtensionRule parseExtensionRule(const std::string& option, const std::string& text) {
  for (const ExtensionRule rule : {ExtensionRule::Keep, ExtensionRule::Drop, ExtensionRule::Off}) {
    if (text == extensionRuleText(rule)) return rule;
  }
  s_refuse(option, text, "give keep, drop or off");
}

std::string extensionRuleText(ExtensionRule rule) {
  switch (rule) {
    case ExtensionRule::Keep:
      return "keep";
    case ExtensionRule::Drop:
      return "drop";
    case ExtensionRule::Off:
      return "off";
  }
  return "";
}

LogLevel parseLogLevel(const std::string& option, const std::string& text) {
  if (text == "error") return LogLevel::Error;
  if (text == "warning") return LogLevel::Warning;
  if (text == "info") return LogLevel::Info;
  if (text == "debug") return LogLevel::Debug;
  s_refuse(option, text, "give error, warning, info or debug");
}

}  // namespace Tessel::Serve
