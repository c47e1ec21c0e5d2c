// Reads the values of the service's options.
#ifndef TSL_TOOLS_SERVE_BASE_SETTINGSTEXT_H
#define TSL_TOOLS_SERVE_BASE_SETTINGSTEXT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "serve/base/Log.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// Each reads the value `text` of the option `option` and throws Tool::Failure, ExitCode::Usage,
// with what is allowed, when it is not one. Any thread.

// A time: a number with its unit, "250ms", "1s", "5m", "1h" or "2d"; `least` at least.
std::chrono::milliseconds parseTime(const std::string& option, const std::string& text,
                                    std::chrono::milliseconds least);
// The same time as text, in its largest unit. Any thread.
std::string timeText(std::chrono::milliseconds time);
// A whole number from `least` to `most`.
std::uint64_t parseNumber(const std::string& option, const std::string& text, std::uint64_t least,
                          std::uint64_t most);
ExtensionRule parseExtensionRule(const std::string& option, const std::string& text);
// A size: a number of bytes, or with its unit, "512M" or "2G" (powers of 1024); `least` at least.
std::size_t parseSize(const std::string& option, const std::string& text, std::size_t least);
std::string extensionRuleText(ExtensionRule rule);
LogLevel parseLogLevel(const std::string& option, const std::string& text);

}  // namespace Tessel::Serve

#endif
