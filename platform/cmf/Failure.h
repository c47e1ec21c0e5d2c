// How this directory reports failures: one exception shape, and LMDB's results in words that say
// what to do. Private to platform/cmf.
#ifndef TSL_CMF_FAILURE_H
#define TSL_CMF_FAILURE_H

#include <string>

#include "base/sourceLine.h"

namespace Tessel::CMF {

// The operation that fails, and the source that says so.
struct Place {
  const char* context;
  const char* file;
};

// Throws Exception with the context and file of `place`, code 4, the line of the call, and
// `detail`.
[[noreturn]] void fail(const Place& place, const std::string& detail, int line = sourceLine());

// Throws as above for the LMDB result or errno value `result`: "`what` in `path`: reason".
[[noreturn]] void failWith(const Place& place, const std::string& what, const std::string& path,
                           int result, int line = sourceLine());

// The reason behind an LMDB result or errno value, with what to do where that is known.
std::string reasonOf(int result);

}  // namespace Tessel::CMF

#endif
