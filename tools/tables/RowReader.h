// The one reader of rows, of tables and of files: two texts in, addresses and what is wrong out.
#ifndef TSL_TOOLS_TABLES_ROWREADER_H
#define TSL_TOOLS_TABLES_ROWREADER_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "failure/Failure.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

// What is wrong with a row. The key is the alias or the private address, the value the members or
// the public address.
enum class RowFault {
  None,
  BadKey,  // It is not an e-mail address, or contains a NUL character, at which the parsers would
           // stop.
  EmptyKey,
  BadValue,
  EmptyValue,  // The library does not treat a row without members as an alias.
  BadFormat,   // Of files only: the format has no such line, or cannot express the row.
};

// A fault with its words for people.
struct Fault {
  RowFault kind;
  std::string why;
};

// Reads rows of one kind of table, one after the other, in the way the library does. Nearly all
// texts are plain: they are read without a copy. One thread.
class RowReader {
 public:
  explicit RowReader(TableKind kind) : m_kind(kind) {}

  // Each reads one column. `None`, or what is wrong with it.
  RowFault readKey(std::string_view text);
  RowFault readValue(std::string_view text);
  // Both: a bad column takes precedence over an empty one, and the key over the value.
  RowFault read(std::string_view key, std::string_view value);
  // What is wrong with the text that was read last and had a fault, in words.
  [[nodiscard]] const std::string& why() const noexcept { return m_why; }

  // The key that was read last, as `EmailAddress::address()` has it; empty when it was bad. Valid
  // as long as its text and until the next call of readKey().
  [[nodiscard]] std::string_view key() const noexcept { return m_key; }
  [[nodiscard]] EmailAddress keyAddress() const;
  // The addresses of the value that was read last, likewise, in the order of its text; members may
  // be there twice.
  [[nodiscard]] const std::vector<std::string_view>& values() const noexcept { return m_values; }
  // In ascending order, each once.
  [[nodiscard]] std::vector<EmailAddress> valueAddresses() const;

 private:
  RowFault refuse(RowFault fault, const std::string& reason);

  TableKind m_kind;
  std::string m_why;
  std::string_view m_key;
  std::string m_parsedKey;
  std::vector<std::string_view> m_values;
  std::vector<std::string> m_parsedValues;
};

// Why `parse` cannot read an address; nothing when it can. Exceptions with other reasons pass.
template <class Parse>
std::optional<std::string> addressFault(Parse parse) {
  try {
    parse();
  } catch (const Exception& exception) {
    if (!isAddressFault(exception)) throw;
    return reasonOf(exception);
  }
  return std::nullopt;
}

// The addresses joined by ",", as they are written into a row and for people.
template <class Addresses>
std::string joined(const Addresses& addresses) {
  std::string text;
  for (const EmailAddress& address : addresses) {
    if (!text.empty()) text += ",";
    text += address.address();
  }
  return text;
}

}  // namespace Tessel::Tool

#endif
