// Messages between two processes.
#include "serve/image/Frame.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

#include <boost/crc.hpp>

namespace Tessel::Serve {

namespace {

using Length = std::uint64_t;
using Checksum = std::uint32_t;

constexpr std::size_t s_header = 1 + sizeof(Length);

Checksum s_frameChecksum(std::string_view bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

template <class Number>
void s_appendNumber(std::string& bytes, Number number) {
  bytes.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

// The number that `bytes` begin with.
template <class Number>
Number s_number(std::string_view bytes) {
  Number number{};
  std::memcpy(&number, bytes.data(), sizeof(number));
  return number;
}

}  // namespace

std::string encoded(const Frame& frame) {
  std::string bytes;
  bytes.push_back(frame.kind);
  s_appendNumber<Length>(bytes, frame.text.size());
  bytes.append(frame.text);
  s_appendNumber<Checksum>(bytes, s_frameChecksum(bytes));
  return bytes;
}

std::optional<Frame> FrameReader::next() {
  const std::string_view bytes = m_bytes;
  if (bytes.size() < s_header) return std::nullopt;
  const auto length = s_number<Length>(bytes.substr(1));
  if (length > m_longest) throw std::runtime_error("a message is too long");
  const std::size_t end = s_header + length;
  if (bytes.size() < end + sizeof(Checksum)) return std::nullopt;
  if (s_number<Checksum>(bytes.substr(end)) != s_frameChecksum(bytes.substr(0, end))) {
    throw std::runtime_error("a message is damaged");
  }
  Frame frame{bytes.front(), std::string(bytes.substr(s_header, length))};
  m_bytes.erase(0, end + sizeof(Checksum));
  return frame;
}

}  // namespace Tessel::Serve
