// Fuzz target of the address keys: any text has a key or none, the case of ASCII letters never
// matters, the key of a key is the key, and keys are clean UTF-8.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/Fuzz.h"
#include "tables/AddressKey.h"

using Tessel::Fuzz::asText;
using Tessel::Fuzz::hasControls;
using Tessel::Fuzz::require;
using Tessel::Tool::addressKey;
using Tessel::Tool::domainKey;
using Tessel::Tool::splitAddress;

namespace {

char s_otherCase(char c) {
  const bool isLetter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  return isLetter ? static_cast<char>(c ^ 0x20) : c;
}

std::string s_otherCase(std::string_view text) {
  std::string other;
  for (const char c : text) other += s_otherCase(c);
  return other;
}

void s_checkDomain(std::string_view text) {
  std::string key;
  std::string again = "left over from before";
  const bool isDomain = domainKey(text, key);
  require(domainKey(s_otherCase(text), again) == isDomain, "case and being a domain", key);
  if (!isDomain) return;
  require(again == key, "case of a domain", key);
  for (const char c : key) {
    require(c > 0x20 && c < 0x7f && c != '@' && (c < 'A' || c > 'Z'), "clean domain", key);
  }
  // Punycode may be longer than the limit of texts.
  if (key.size() > 255) return;
  require(domainKey(key, again) && again == key, "key of the key of a domain", key);
}

void s_checkAddress(std::string_view text) {
  std::string key;
  std::string again = "left over from before";
  const bool isAddress = addressKey(text, key);
  require(addressKey(s_otherCase(text), again) == isAddress, "case and being an address", key);
  std::string_view local;
  std::string_view domain;
  if (!isAddress) return;
  require(again == key, "case of an address", key);
  require(!hasControls(key), "clean key", key);
  require(splitAddress(text, local, domain), "an address has parts", key);
  std::string domainPart;
  require(domainKey(domain, domainPart), "the domain of an address is one", key);
  require(key.size() > domainPart.size() + 1 && key.ends_with("@" + domainPart),
          "the key ends with the key of the domain", key);
  // What was in quotes, or became longer, is not always an address again.
  if (key.front() == '"' || !splitAddress(key, local, domain)) return;
  if (local.size() > 64 || key.size() > 254) return;
  require(addressKey(key, again) && again == key, "key of the key of an address", key);
  if (local.find('\\') != std::string_view::npos || local.find('"') != std::string_view::npos) {
    return;
  }
  if (local.size() > 62 || key.size() > 252) return;
  const std::string quoted = "\"" + std::string(local) + "\"@" + std::string(domain);
  require(addressKey(quoted, again) && again == key, "quotes do not matter", key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = asText(data, size);
  s_checkAddress(text);
  s_checkDomain(text);
  return 0;
}
