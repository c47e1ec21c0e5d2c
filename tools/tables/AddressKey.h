// The form of an address under which the rows of a table and the requests of mail servers find each
// other, however each of them spells it.
#ifndef TSL_TOOLS_TABLES_ADDRESSKEY_H
#define TSL_TOOLS_TABLES_ADDRESSKEY_H

#include <string>
#include <string_view>

namespace Tessel::Tool {

// All of these may be called by any thread. `key` must not share memory with `text`. A text without
// a key is never found: no row has a key that it could ask for. Each throws when there is no
// memory; text beyond ASCII also throws std::runtime_error when the Unicode library cannot work,
// which says nothing about the text.

// Puts the key of the address `text` into `key`: the key of its local part, "@", and that of its
// domain. False when `text` is no address: broken UTF-8, control characters, more than 254 octets,
// 64 before the "@" or 255 after it, or parts that have no key; `key` holds anything then.
//
// A local part is a quoted string or plain text: mail servers that ask without the quotes ask `a
// b@example.com` for `"a b"@example.com`. Its key is without quotes, composed (NFC), and without
// letter case by simple folding, one character to one character. Full folding would make one
// address of two people's: "strasse" and "stra\u00dfe". A key may be longer than its text.
// Deliberate: the address `""@example.com` has no key. Without its quotes it would be the request
// that mail servers make for a whole domain.
bool addressKey(std::string_view text, std::string& key);

// Puts the key of the domain `text` into `key`: its ASCII form by UTS #46 (non-transitional) in
// lower case, so that a name in Unicode and in Punycode are one; an address literal ("[192.0.2.1]")
// in lower case. False when `text` is no domain: empty labels (so also a dot at the start or the
// end), blanks, "@", control characters, broken UTF-8, more than 255 octets, or a name beyond ASCII
// that UTS #46 refuses; `key` holds anything then.
bool domainKey(std::string_view text, std::string& key);

// What `text`, a member of an alias or any other address, is compared by: its key, or the text in
// small ASCII letters where it has none, as names without a domain.
std::string comparisonKey(std::string_view text);
// The same for the domain `text`.
std::string comparisonDomain(std::string_view text);

// Splits the address `text` at its "@" into views of it: after the quoted string that it begins
// with, otherwise at the only "@". False when there is no such place or a part is empty; the parts
// are unspecified then.
bool splitAddress(std::string_view text, std::string_view& local, std::string_view& domain);

}  // namespace Tessel::Tool

#endif
