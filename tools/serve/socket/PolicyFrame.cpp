// Reads requests of the policy delegation protocol.
#include "serve/socket/PolicyFrame.h"

#include <algorithm>

namespace Tessel::Serve {

namespace {

// Where the value of the attribute `name` goes; null for one that is not used.
std::string_view* s_placeOf(PolicyRequest& request, std::string_view name) {
  if (name == "request") return &request.request;
  if (name == "protocol_state") return &request.state;
  if (name == "recipient") return &request.recipient;
  if (name == "sasl_username") return &request.login;
  if (name == "client_address") return &request.client;
  if (name == "policy_context") return &request.context;
  return nullptr;
}

}  // namespace

PolicyFrame parsePolicyFrame(std::string_view buffer, std::size_t maxSize) noexcept {
  using State = PolicyFrame::State;
  PolicyFrame frame{State::Frame, 0, {}};
  const std::string_view allowed = buffer.substr(0, std::min(buffer.size(), maxSize));
  while (true) {
    const std::size_t end = allowed.find('\n', frame.consumed);
    if (end == std::string_view::npos) {
      return {buffer.size() >= maxSize ? State::TooLong : State::NeedMore, 0, {}};
    }
    std::string_view line = allowed.substr(frame.consumed, end - frame.consumed);
    if (line.ends_with('\r')) line.remove_suffix(1);
    const bool isFirst = frame.consumed == 0;
    frame.consumed = end + 1;
    if (line.empty() && !isFirst) return frame;
    const std::size_t equals = line.find('=');
    const bool isGood = equals != 0 && equals != std::string_view::npos &&
                        line.find('\0') == std::string_view::npos;
    if (!isGood) return {State::Malformed, 0, {}};
    if (std::string_view* const place = s_placeOf(frame.request, line.substr(0, equals))) {
      *place = line.substr(equals + 1);
    }
  }
}

}  // namespace Tessel::Serve
