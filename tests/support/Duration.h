// How long the tests work that look for what happens seldom.
#ifndef TSL_TESTS_SUPPORT_DURATION_H
#define TSL_TESTS_SUPPORT_DURATION_H

#include <chrono>
#include <cstdlib>

namespace Tessel::Testing {

// Two seconds; TSL_TEST_SECONDS asks for more.
inline std::chrono::seconds duration() {
  const char* text = std::getenv("TSL_TEST_SECONDS");  // NOLINT(concurrency-mt-unsafe): read only
  return std::chrono::seconds(text != nullptr ? std::strtol(text, nullptr, 10) : 2);
}

}  // namespace Tessel::Testing

#endif
