// E-mail addresses: an immutable value, its parsers (RFC 5321, RFC 5322, RFC 6531, RFC 6532) and
// its escaping for SQL.
#ifndef TSL_ADDRESS_EMAILADDRESS_H
#define TSL_ADDRESS_EMAILADDRESS_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <set>
#include <string>
#include <string_view>

#include "base/Export.h"

namespace Tessel {

// One e-mail address: local part and domain, kept as they were given, or null.
//
// Equality and order disregard the case of ASCII letters and nothing else; other bytes, those of
// UTF-8 text among them, compare as they are, unsigned.
//
// What the parsers and `create` accept:
// - local part: dot-string or quoted string (RFC 5321 section 4.1.2), UTF-8 in both (RFC 6531
//   section 3.3). "*" is an ordinary character of a local part;
// - domain: labels of letters, digits, hyphens (not at the ends of a label), underscores and UTF-8,
//   one label is enough, no dot at the end; or an address literal (RFC 5321 section 4.1.3), which
//   keeps its brackets. Deliberate: underscores occur in domains in real use;
// - UTF-8 must be well formed and free of control characters (U+0080 to U+009F);
// - lengths in octets: local part 64, label 63, domain 255, whole address 254, each counted as
//   written (quotes and backslashes count, comments and folding do not). An address without a
//   domain is no mailbox, so only the limit of the whole address holds for it: an all-users marker
//   is longer than a local part may be, and fits for domains of up to 245 octets.
//
// Text ends at its first NUL. Blanks, tabs and CR around it are ignored; an LF is not.
//
// What is refused throws `Exception`: code 4, file "EmailAddress", context "EmailAddress::" and the
// name of the function, the reason and the text (shortened, control characters escaped) as the
// detail.
//
// Threads: one object may be read from any threads at once; it may be assigned or destroyed by one
// thread while no other uses it. Copies share nothing, so they are independent.
class TSL_EXPORT EmailAddress {
 public:
  // The null address.
  EmailAddress() noexcept = default;
  // A copy of an address of usual length is a copy of 56 bytes and does not throw; a longer one
  // allocates and may throw `std::bad_alloc`.
  EmailAddress(const EmailAddress& other) {
    if (other.isInline()) {
      m_value = other.m_value;
    } else {
      copyHeap(other);
    }
  }
  // Leaves `other` null.
  EmailAddress(EmailAddress&& other) noexcept : m_value(other.m_value) { other.m_value = Value{}; }
  // As the copy constructor. The address is unchanged when that throws.
  EmailAddress& operator=(const EmailAddress& other) {
    if (isInline() && other.isInline()) {
      m_value = other.m_value;
    } else if (this != &other) {
      assignHeap(other);
    }
    return *this;
  }
  // Leaves `other` null, except when it is this object.
  EmailAddress& operator=(EmailAddress&& other) noexcept {
    const Value value = other.m_value;
    other.m_value = Value{};
    freeHeap();
    m_value = value;
    return *this;
  }
  ~EmailAddress() { freeHeap(); }

  // The one mailbox that `text` is (RFC 5321 section 4.1.2 with RFC 6531): no display name, angle
  // brackets, comments or blanks inside. With `allowNoDomain` an address without "@" is accepted
  // with an empty domain; its local part must not be empty. Null for blank text. Throws as the
  // class says. Any thread.
  static EmailAddress rfc5321Parse(std::string_view text, bool allowNoDomain);

  // The one mailbox that `text` is in the syntax of message headers (RFC 5322 section 3.4 with RFC
  // 6532): the above and a display name (dots accepted), angle brackets, nested comments, folding
  // white space (also with a bare LF), and white space and comments around the dots and the "@"
  // (RFC 5322 section 4.4). Source routes, groups, lists and empty angle brackets are refused. A
  // tab inside a quoted local part is refused: it could not be written for SMTP. The display name
  // and the comments are checked and dropped. Null for blank text. Throws as the class says. Any
  // thread.
  static EmailAddress rfc5322Parse(std::string_view text, bool allowNoDomain);

  // The set of the comma-separated mailboxes of `text`, each as `rfc5322Parse` takes it. Items that
  // are empty or hold only comments are skipped, an address that is there already is left out. With
  // `allowGroups` "Name: a@x, b@x;" is accepted and gives its members; without, a group throws.
  // Empty for blank text. Throws as the class says, the detail shows the item. Any thread.
  static std::set<EmailAddress> rfc5322ParseSet(std::string_view text, bool allowNoDomain,
                                                bool allowGroups);

  // The address of a local part without quotes and backslashes (any printable ASCII, blanks, UTF-8)
  // and a domain as the parsers take it; neither is trimmed. An empty `local` with a domain is the
  // address `""@domain`; with `allowNoDomain` the domain may be empty. Null when both are empty.
  // Throws as the class says. Any thread.
  static EmailAddress create(std::string_view local, std::string_view domain, bool allowNoDomain);

  // True for the null address only. Does not throw.
  [[nodiscard]] bool isNull() const noexcept {
    return m_value.localLength == 0 && m_value.domainLength == 0;
  }
  // The local part as it was given, without the quotes and backslashes of a quoted string. Empty
  // for the null address.
  [[nodiscard]] std::string local() const;
  // The domain as it was given; empty when there is none and for the null address.
  [[nodiscard]] std::string domain() const;
  // The text that `rfc5321Parse` reads back as an equal address (`allowNoDomain` true when there is
  // no domain): the local part is quoted if it must be. Empty for the null address.
  [[nodiscard]] std::string address() const;

  // True when local parts and domains are equal but for the case of ASCII letters.
  friend bool operator==(const EmailAddress& a, const EmailAddress& b) noexcept {
    if (a.m_value.localLength != b.m_value.localLength ||
        a.m_value.domainLength != b.m_value.domainLength) {
      return false;
    }
    if (!a.isInline()) return equalLong(a, b);
    // The contents have one length, and the lengths behind them do not differ either.
    const std::size_t size = a.contentSize();
    for (std::size_t i = 0; i < size; i += s_wordSize) {
      const std::uint64_t wordA = word(a.inlineContent() + i);
      const std::uint64_t wordB = word(b.inlineContent() + i);
      if (wordA != wordB && !differInCaseOnly(wordA, wordB)) return false;
    }
    return true;
  }
  // Orders by local part, then by domain, with ASCII letters as lower case: a strict weak order
  // that agrees with `operator==`. The null address comes first.
  friend bool operator<(const EmailAddress& a, const EmailAddress& b) noexcept {
    if (!a.isInline() || !b.isInline()) return lessLong(a, b);
    for (std::size_t i = 0; i < sizeof(Value); i += s_wordSize) {
      std::uint64_t wordA = word(a.inlineContent() + i);
      std::uint64_t wordB = word(b.inlineContent() + i);
      if (wordA == wordB) continue;
      if (i == s_lastInlineWord) {
        wordA &= s_contentOfLastWord;
        wordB &= s_contentOfLastWord;
      }
      wordA = folded(wordA);
      wordB = folded(wordB);
      if (wordA != wordB) return byteOrder(wordA) < byteOrder(wordB);
    }
    return false;
  }
  // Writes the text of `address()`; width and fill of the stream are used as for a string.
  friend TSL_EXPORT std::ostream& operator<<(std::ostream& stream, const EmailAddress& address);

 private:
  // The content is the local part, a NUL and the domain, padded with NULs. No text contains a NUL,
  // so the byte order of contents is the order by local part, then by domain. A content of up to
  // 54 bytes lies in `bytes`. A longer one lies on the heap, in a block of a multiple of 8 bytes
  // that this object owns, with its pointer in the first of `bytes`. The lengths tell the two
  // apart. The null address has both lengths 0, and no other address has.
  struct Value {
    alignas(8) char bytes[54];
    std::uint8_t localLength;
    std::uint8_t domainLength;
  };

  // Contents are compared in words of eight bytes, which is as fast as comparing strings though
  // case is disregarded: most words are equal as they are, or differ and end the comparison.
  static constexpr std::size_t s_wordSize = sizeof(std::uint64_t);
  static constexpr std::size_t s_lastInlineWord = sizeof(Value) - s_wordSize;
  // Leaves out the two lengths, which follow the content in that word.
  static constexpr auto s_contentOfLastWord = std::bit_cast<std::uint64_t>(
      std::array<std::uint8_t, s_wordSize>{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0});

  static constexpr std::uint64_t repeated(unsigned byte) { return byte * 0x0101010101010101U; }
  static std::uint64_t word(const char* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, s_wordSize);
    return word;
  }
  // The high bit of each byte of `word`, whose bytes must be below 0x80, is set in the result when
  // the byte lies from `first` to `last`; other bits mean nothing. No sum carries into the next
  // byte.
  static constexpr std::uint64_t inRange(std::uint64_t word, char first, char last) noexcept {
    const std::uint64_t fromFirst = word + repeated(0x80U - static_cast<unsigned>(first));
    const std::uint64_t afterLast = word + repeated(0x7fU - static_cast<unsigned>(last));
    return fromFirst ^ afterLast;
  }
  // `word` with ASCII capitals as small letters: bit 0x20 is set in each of them.
  static constexpr std::uint64_t folded(std::uint64_t word) noexcept {
    const std::uint64_t capitals = inRange(word & repeated(0x7f), 'A', 'Z') & ~word;
    return word | ((capitals & repeated(0x80)) >> 2U);
  }
  // True when `a` and `b` differ in nothing but bit 0x20 of ASCII letters.
  static constexpr bool differInCaseOnly(std::uint64_t a, std::uint64_t b) noexcept {
    const std::uint64_t difference = a ^ b;
    if ((difference & ~repeated(0x20)) != 0) return false;
    const std::uint64_t letters = inRange((a | repeated(0x20)) & repeated(0x7f), 'a', 'z') & ~a;
    return ((difference << 2U) & ~letters) == 0;
  }
  // A number whose order is the order of the bytes of `word` in memory.
  static constexpr std::uint64_t byteOrder(std::uint64_t word) noexcept {
    if constexpr (std::endian::native == std::endian::big) return word;
    word = ((word & 0x00ff00ff00ff00ffU) << 8U) | ((word >> 8U) & 0x00ff00ff00ff00ffU);
    word = ((word & 0x0000ffff0000ffffU) << 16U) | ((word >> 16U) & 0x0000ffff0000ffffU);
    return (word << 32U) | (word >> 32U);
  }
  // `operator==` for two of equal lengths whose contents are on the heap.
  static bool equalLong(const EmailAddress& a, const EmailAddress& b) noexcept;
  // `operator<` where at least one has its content on the heap.
  static bool lessLong(const EmailAddress& a, const EmailAddress& b) noexcept;

  // Requires: texts without NUL within the limits, not both empty.
  EmailAddress(std::string_view local, std::string_view domain);

  [[nodiscard]] std::size_t contentSize() const noexcept {
    return std::size_t{m_value.localLength} + 1 + m_value.domainLength;
  }
  [[nodiscard]] bool isInline() const noexcept { return contentSize() <= sizeof(m_value.bytes); }
  [[nodiscard]] char* heap() const noexcept {
    char* content = nullptr;
    std::memcpy(&content, m_value.bytes, sizeof(content));
    return content;
  }
  [[nodiscard]] const char* inlineContent() const noexcept {
    return reinterpret_cast<const char*>(&m_value);
  }
  // The content; its last word may be read whole, and for an inline content takes in the lengths.
  [[nodiscard]] const char* content() const noexcept {
    return isInline() ? inlineContent() : heap();
  }
  void freeHeap() noexcept {
    if (!isInline()) delete[] heap();
  }
  void copyHeap(const EmailAddress& other);
  void assignHeap(const EmailAddress& other);
  // Writes the text of `address()` to `text`, which has room for it; the number of bytes.
  std::size_t write(char* text) const noexcept;

  Value m_value{};
};

static_assert(
    sizeof(EmailAddress) == 56,
    "sets of addresses are copied often: a set node is to stay within 96 bytes of malloc");

// Text of `address` that is safe inside a single-quoted SQL literal under the SQL mode that
// `Database::Connection` sets (backslash escapes on). Empty for the null address. The wildcards of
// `like` are not escaped. Any thread.
TSL_EXPORT std::string emailAddressEscapedWrite(const EmailAddress& address);

}  // namespace Tessel

#endif
