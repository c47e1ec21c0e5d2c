// Netstrings, the frames of the socketmap protocol: "LENGTH:BYTES,".
#ifndef TSL_TOOLS_SERVE_SOCKET_NETSTRING_H
#define TSL_TOOLS_SERVE_SOCKET_NETSTRING_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Tessel::Serve {

// What is at the front of a buffer. A value; `payload` lies in the buffer and lives as long as the
// buffer stays as it is.
struct NetstringFrame {
  enum class State {
    NeedMore,   // The beginning of a frame, or nothing yet.
    Frame,      // A whole frame.
    Malformed,  // Not a netstring, whatever follows.
    TooLong,    // Its length says that it is longer than allowed.
  };

  State state;
  std::size_t consumed;      // Bytes of the buffer that the frame takes; 0 unless it is whole.
  std::string_view payload;  // What is in the frame; empty unless it is whole.
};

// The frame at the front of `buffer`, with a payload of at most `maxSize` bytes. The length has no
// sign, no blanks and no leading zeros. A fault is reported at the first wrong byte, and stays with
// more bytes after it. Never looks at the payload, so the cost does not depend on how much of it
// has arrived. Never fails; any thread.
NetstringFrame parseNetstring(std::string_view buffer, std::size_t maxSize) noexcept;

// Appends the frame of `payload` to `out`. Any thread.
void appendNetstring(std::string& out, std::string_view payload);

}  // namespace Tessel::Serve

#endif
