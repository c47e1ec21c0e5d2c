// What is wrong with the text of an address, and how it is reported. Private to the address
// library.
#ifndef TSL_ADDRESS_EMAILADDRESSFAULT_H
#define TSL_ADDRESS_EMAILADDRESSFAULT_H

#include <string>
#include <string_view>

namespace Tessel {

// The first fault found in a text; a default-made one means that there is none. `reason` is a
// literal in which "%" is replaced by `character`. `at` points into the text that was read, or is
// null where the place does not matter.
struct EmailAddressFault {
  const char* reason = nullptr;
  const char* at = nullptr;
  char character = '\0';

  explicit operator bool() const noexcept { return reason != nullptr; }
};

// Detail of the exception: the reason, and `text` in quotes. The text is cut to about 100 bytes,
// never inside a character; control characters and invalid UTF-8 are shown as \xNN.
std::string emailAddressFaultDetail(const EmailAddressFault& fault, std::string_view text);

}  // namespace Tessel

#endif
