// Readers of address text: one mailbox as SMTP has it (RFC 5321), and mailboxes, lists and groups
// as message headers have them (RFC 5322). Private to the address library. They read once from left
// to right, in time linear in the text and without recursion, and throw nothing.
#ifndef TSL_ADDRESS_EMAILADDRESSPARSER_H
#define TSL_ADDRESS_EMAILADDRESSPARSER_H

#include <cstddef>
#include <string_view>

#include "address/EmailAddressFault.h"

namespace Tessel {

// What a reader found: the local part without quotes and backslashes, and the domain. Both are
// views into the text that was read or into the buffers here.
struct EmailAddressParts {
  EmailAddressParts() {}  // Deliberate: the buffers stay uninitialised, most texts never use them.
  EmailAddressParts(const EmailAddressParts&) = delete;
  EmailAddressParts& operator=(const EmailAddressParts&) = delete;

  std::string_view local;
  std::string_view domain;
  char localBuffer[256];   // At least the limit of the whole address.
  char domainBuffer[256];  // At least the limit of a domain.
};

// `text` up to its first NUL.
std::string_view emailAddressTextUntilNul(std::string_view text) noexcept;

// `text` without the blanks, tabs and CR around it.
std::string_view emailAddressTrimmed(std::string_view text) noexcept;

// Reads the mailbox that `text` is, per RFC 5321. Returns the fault, or none and sets `parts`.
// Requires: trimmed text that is not empty.
EmailAddressFault emailAddressReadMailbox(std::string_view text, bool allowNoDomain,
                                          EmailAddressParts& parts) noexcept;

// Reads the addresses of a text of RFC 5322 syntax, one by one. For one thread.
class EmailAddressReader {
 public:
  // The text must outlive the reader and what it returns.
  EmailAddressReader(std::string_view text, bool allowNoDomain, bool allowGroups) noexcept;

  // Blank text: nothing but blanks, tabs and CR.
  [[nodiscard]] bool isBlank() const noexcept { return m_place == m_end; }
  // Reads the one mailbox that the text is. False: `fault()` says what is wrong.
  // Requires: no text was read, and it is not blank.
  bool readSingle(EmailAddressParts& parts) noexcept;
  // Reads the next address of a list. False: the list has ended, or `fault()` is set.
  bool readNext(EmailAddressParts& parts) noexcept;

  [[nodiscard]] const EmailAddressFault& fault() const noexcept { return m_fault; }
  // The item of the list in which the fault is.
  [[nodiscard]] std::string_view faultyItem() const noexcept;

 private:
  // Words and dots, which turn out to be a display name or a local part only when they have ended.
  struct Words {
    bool any = false;
    bool expectWord = true;   // At the start and after a dot.
    std::size_t size = 0;     // Of the local part in the buffer, at most `written`.
    std::size_t written = 0;  // Of the local part with its quotes and backslashes.
    EmailAddressFault asLocal;
    EmailAddressFault asPhrase;
  };

  // What one item of a list is.
  enum class Item { address, empty, groupStart, fault };

  Item readItem(EmailAddressParts& parts) noexcept;
  Item startGroup(const Words& words) noexcept;
  bool endGroup() noexcept;
  bool readPlain(EmailAddressParts& parts) noexcept;
  bool readAngle(EmailAddressParts& parts) noexcept;
  bool readAddress(const Words& words, EmailAddressParts& parts) noexcept;
  bool readWords(EmailAddressParts& parts, Words& words) noexcept;
  void addDot(EmailAddressParts& parts, Words& words) noexcept;
  void appendLocal(EmailAddressParts& parts, Words& words, const char* start,
                   const char* end) noexcept;
  bool readQuoted(EmailAddressParts& parts, Words& words) noexcept;
  bool readDomain(EmailAddressParts& parts) noexcept;
  bool readLiteral(EmailAddressParts& parts) noexcept;
  bool appendDomain(EmailAddressParts& parts, const char* start, const char* end) noexcept;
  bool finish(const Words& words, bool hasDomain, EmailAddressParts& parts) noexcept;
  bool skipCfws() noexcept;
  bool skipComment() noexcept;
  [[nodiscard]] std::size_t foldingSize() const noexcept;
  bool checkAfterAddress() noexcept;
  bool fail(const char* reason) noexcept;
  bool fail(const EmailAddressFault& fault) noexcept;
  bool failAtCharacter(const char* control, const char* utf8, const char* other) noexcept;
  [[nodiscard]] bool atEnd() const noexcept { return m_place == m_end; }
  [[nodiscard]] bool at(char c) const noexcept { return m_place != m_end && *m_place == c; }

  const char* m_place;
  const char* m_end;
  const char* m_item;             // Start of the item being read.
  const char* m_group = nullptr;  // Start of the group being read.
  bool m_allowNoDomain;
  bool m_allowGroups;
  bool m_inGroup = false;
  EmailAddressFault m_fault;
};

}  // namespace Tessel

#endif
