// How this folder reports failures: one exception shape, and LMDB's results in words that say what
// to do. Private to platform/cmf.
#ifndef TSL_CMF_FAILURE_H
#define TSL_CMF_FAILURE_H

#include <string>

namespace Tessel::CMF {

// Throws Exception `context`, code 4, without a source position, with `detail`.
[[noreturn]] void fail(const char* context, const std::string& detail);

// Throws as above for the LMDB result or errno value `result`: "`what` in `path`: reason".
[[noreturn]] void failWith(const char* context, const std::string& what, const std::string& path,
                           int result);

// The reason behind an LMDB result or errno value, with what to do where that is known.
std::string reasonOf(int result);

}  // namespace Tessel::CMF

#endif
