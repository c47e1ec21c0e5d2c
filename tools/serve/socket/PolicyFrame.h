// Requests of the policy delegation protocol: lines "NAME=VALUE" up to an empty line.
#ifndef TSL_TOOLS_SERVE_SOCKET_POLICYFRAME_H
#define TSL_TOOLS_SERVE_SOCKET_POLICYFRAME_H

#include <cstddef>
#include <string_view>

#include "serve/answer/Policy.h"

namespace Tessel::Serve {

// What is at the front of a buffer. A value; the texts of `request` lie in the buffer and live as
// long as it stays as it is.
struct PolicyFrame {
  enum class State {
    NeedMore,   // The beginning of a request, or nothing yet.
    Frame,      // A whole request.
    Malformed,  // Not a request, whatever follows.
    TooLong,    // It is longer than allowed.
  };

  State state;
  std::size_t consumed;  // Bytes of the buffer that the request takes; 0 unless it is whole.
  PolicyRequest request;
};

// The request at the front of `buffer`, of at most `maxSize` bytes with its empty line. Names that
// are not used are ignored; of two values of one name the last counts. Never fails; any thread.
PolicyFrame parsePolicyFrame(std::string_view buffer, std::size_t maxSize) noexcept;

}  // namespace Tessel::Serve

#endif
