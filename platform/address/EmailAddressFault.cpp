// Detail texts for malformed addresses, fit for a log whatever the malformed text contains.
#include "address/EmailAddressFault.h"

#include "address/EmailAddressGrammar.h"
#include "base/bytes.h"

namespace Tessel {

namespace {

// Longest text that a detail shows, in bytes as shown.
constexpr std::size_t s_maxShown = 100;

std::string s_hexShown(char character) {
  std::string shown;
  appendEscaped(shown, character);
  return shown;
}

std::string s_shown(std::string_view text) {
  std::string shown;
  const char* const end = text.data() + text.size();
  for (const char* place = text.data(); place != end;) {
    const std::size_t length = emailAddressCharacterLength(place, end);
    const std::string piece = length > 0 ? std::string(place, length) : s_hexShown(*place);
    if (shown.size() + piece.size() > s_maxShown) return shown + "...";
    shown += piece;
    place += length > 0 ? length : 1;
  }
  return shown;
}

}  // namespace

std::string emailAddressFaultDetail(const EmailAddressFault& fault, std::string_view text) {
  std::string detail = fault.reason;
  const std::size_t place = detail.find('%');
  if (place != std::string::npos) {
    detail.replace(place, 1, "\"" + s_shown({&fault.character, 1}) + "\"");
  }
  return detail + ": \"" + s_shown(text) + "\"";
}

}  // namespace Tessel
