// The maps that a mail server may ask.
#ifndef TSL_TOOLS_SERVE_BASE_MAP_H
#define TSL_TOOLS_SERVE_BASE_MAP_H

#include <array>
#include <cstddef>
#include <string_view>

namespace Tessel::Serve {

// `None` counts requests that ask for no map, `Policy` those of the policy protocol.
enum class Map : std::size_t {
  Alias,
  MaskPublic,
  MaskPrivate,
  Mailbox,
  Domain,
  SenderLogin,
  None,
  Policy
};
inline constexpr std::size_t s_maps = 8;

// In the order of `Map`.
inline constexpr std::array<std::string_view, s_maps> s_mapNames{
    "alias", "mask_public", "mask_private", "mailbox", "domain", "sender_login", "none", "policy"};

// The map that requests call `name`; `None` when there is none.
constexpr Map mapOf(std::string_view name) {
  std::size_t map = 0;
  while (map < static_cast<std::size_t>(Map::None) && s_mapNames[map] != name) ++map;
  return static_cast<Map>(map);
}

}  // namespace Tessel::Serve

#endif
