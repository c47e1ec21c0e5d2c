// Where an exception is thrown.
#ifndef TSL_BASE_SOURCELINE_H
#define TSL_BASE_SOURCELINE_H

namespace Tessel {

// The line of the source that calls it; as a default argument, the line of the call that leaves it
// out. Every exception of the platform takes its line from here, so that none is stale. (Not every
// supported compiler has std::source_location.) Any thread.
constexpr int sourceLine(int line = __builtin_LINE()) noexcept {
  return line;
}

}  // namespace Tessel

#endif
