// What the fuzz targets share: the input as text, what a violated property does, and the outcome of
// a parser that may refuse its text.
#ifndef TSL_FUZZ_FUZZ_H
#define TSL_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "base/Exception.h"

namespace Tessel::Fuzz {

// Thrown when a property does not hold. Nothing in the project catches it: it ends a run of
// libFuzzer, which keeps the input, and fails the replay of the tests.
struct Violation {
  std::string what;
};

inline void require(bool holds, const char* what, std::string_view shown = {}) {
  if (holds) return;
  const Violation violation{std::string(what) + ", for \"" + std::string(shown) + "\""};
  std::fprintf(stderr, "violated: %s\n", violation.what.c_str());
  throw violation;
}

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline bool hasControls(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return true;
  }
  return false;
}

// What a parser made of a text: a value, or the detail of its exception.
template <class Value>
struct Outcome {
  std::optional<Value> value;
  std::string refusal;
  bool operator==(const Outcome&) const = default;
};

// Runs `parse`. The only exception that may leave it is one of our own, and fit for a log.
template <class Parse>
auto outcomeOf(const Parse& parse) -> Outcome<decltype(parse())> {
  try {
    return {parse(), {}};
  } catch (const Exception& exception) {
    const std::string& detail = exception.stringParameter();
    require(exception.code() == 4 && !detail.empty(), "content of the exception", detail);
    require(!hasControls(detail), "an exception without controls", detail);
    return {std::nullopt, detail};
  }
}

}  // namespace Tessel::Fuzz

#endif
