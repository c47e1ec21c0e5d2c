// Fuzz target of the netstring reader: a stream gives the same frames and ends the same way however
// it arrives, and frames that are written are read back. The first byte of an input holds the
// longest payload that is allowed, the second the size of the pieces, the rest is the stream.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Fuzz.h"
#include "serve/socket/Netstring.h"

using Tessel::Fuzz::asText;
using Tessel::Fuzz::require;
using Tessel::Serve::appendNetstring;
using Tessel::Serve::NetstringFrame;
using Tessel::Serve::parseNetstring;

namespace {

// What a connection made of a stream.
struct Outcome {
  std::vector<std::string> payloads;
  NetstringFrame::State end = NetstringFrame::State::NeedMore;
  bool operator==(const Outcome&) const = default;
};

// Takes the frames off the front of `buffer`. What is left ends with `outcome.end`.
void s_take(std::string& buffer, std::size_t maxSize, Outcome& outcome) {
  for (;;) {
    const NetstringFrame frame = parseNetstring(buffer, maxSize);
    outcome.end = frame.state;
    if (frame.state != NetstringFrame::State::Frame) {
      require(frame.consumed == 0 && frame.payload.empty(), "nothing is taken but frames");
      return;
    }
    require(frame.payload.size() <= maxSize, "no payload is too long");
    require(frame.consumed <= buffer.size() && frame.consumed > frame.payload.size() + 2,
            "a frame is longer than its payload");
    outcome.payloads.emplace_back(frame.payload);
    buffer.erase(0, frame.consumed);
  }
}

// The stream in pieces of `piece` bytes. Nothing more is read after a fault, as on a connection.
Outcome s_inPieces(std::string_view stream, std::size_t maxSize, std::size_t piece) {
  Outcome outcome;
  std::string buffer;
  while (!stream.empty()) {
    const std::size_t size = std::min(piece, stream.size());
    buffer += stream.substr(0, size);
    stream.remove_prefix(size);
    s_take(buffer, maxSize, outcome);
    if (outcome.end != NetstringFrame::State::NeedMore) break;
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t maxSize = data[0];
  const std::size_t piece = data[1] % 16U + 1U;
  const std::string_view stream = asText(data, size).substr(2);
  const Outcome whole = s_inPieces(stream, maxSize, stream.size());
  require(s_inPieces(stream, maxSize, 1) == whole, "the same outcome byte by byte");
  require(s_inPieces(stream, maxSize, piece) == whole, "the same outcome in pieces");

  std::string written;
  for (const std::string& payload : whole.payloads) appendNetstring(written, payload);
  require(stream.substr(0, written.size()) == written, "frames have one spelling");
  std::string frame;
  appendNetstring(frame, stream);
  const NetstringFrame back = parseNetstring(frame, stream.size());
  require(back.state == NetstringFrame::State::Frame && back.payload == stream &&
              back.consumed == frame.size(),
          "a frame is read back");
  return 0;
}
