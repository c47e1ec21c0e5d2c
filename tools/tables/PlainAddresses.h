// Quick reading of the texts that nearly all rows hold.
#ifndef TSL_TOOLS_TABLES_PLAINADDRESSES_H
#define TSL_TOOLS_TABLES_PLAINADDRESSES_H

#include <string_view>
#include <vector>

namespace Tessel::Tool {

// True when `text` is one address of the plainest form, see splitPlain().
bool isPlain(std::string_view text);

// Puts the addresses of `text`, a list of them joined by ",", into `addresses`, when each is of the
// plainest form: a dot-string of ASCII, "@", and a domain name of ASCII. Such a text is what
// `EmailAddress::address()` gives for it. False when one is not of that form, which the parsers of
// EmailAddress may accept or refuse; `addresses` is unspecified then. Views into `text`.
bool splitPlain(std::string_view text, std::vector<std::string_view>& addresses);

}  // namespace Tessel::Tool

#endif
