// Messages between two processes: length, text and checksum. The receiver notices one that is
// damaged.
#ifndef TSL_TOOLS_SERVE_IMAGE_FRAME_H
#define TSL_TOOLS_SERVE_IMAGE_FRAME_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Tessel::Serve {

// A value. On the way it is its letter, the length of the text (8 bytes in the order of the host),
// the text, and the CRC-32 of all that (4 bytes).
struct Frame {
  char kind;
  std::string text;
};

// What `frame` is on the way.
std::string encoded(const Frame& frame);

// Puts frames together from the pieces that arrive. One thread.
class FrameReader {
 public:
  // Accepts texts of `longest` bytes.
  explicit FrameReader(std::size_t longest) : m_longest(longest) {}

  void add(std::string_view bytes) { m_bytes.append(bytes); }
  // The next frame, and takes it out; nothing when it has not arrived yet. Throws
  // std::runtime_error when it is too long or its checksum is wrong: then all that follows is
  // unknown.
  std::optional<Frame> next();

 private:
  std::size_t m_longest;
  std::string m_bytes;
};

}  // namespace Tessel::Serve

#endif
