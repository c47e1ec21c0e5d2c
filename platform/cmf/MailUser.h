// The record of a mail user, as it lies in the configuration and is read in place.
#ifndef TSL_CMF_MAILUSER_H
#define TSL_CMF_MAILUSER_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Tessel::CMF {

// Number of the mail-user table of a domain.
constexpr std::uint32_t s_mailUserTable = 346;

// Longest user name in octets: the local part of an address (RFC 5321, 4.5.3.1.1).
constexpr std::size_t s_maxUserName = 64;

// Room for a user name, its NUL, and padding that puts the field behind it on a multiple of 4.
constexpr std::size_t s_userNameRoom = 68;

// Kinds of mail user. Only a mailbox belongs to "all users" of a domain.
enum MailUserKind : std::int32_t {
  MailUserDisabled = 0,
  MailUserMailbox = 1,
  MailUserShared = 2,  // Shared or resource mailbox.
};

}  // namespace Tessel::CMF

// One mail user. The layout is the storage format: a change needs a new format version.
struct __aps_mail_user {  // NOLINT(bugprone-reserved-identifier): programs know the record by it
  char user_name[Tessel::CMF::s_userNameRoom];  // Local part, NUL-terminated, spelled as given.
  std::int32_t kind;                            // A `MailUserKind`.
};

static_assert(std::is_trivially_copyable_v<__aps_mail_user>);
static_assert(std::is_standard_layout_v<__aps_mail_user>);
static_assert(offsetof(__aps_mail_user, user_name) == 0);
static_assert(offsetof(__aps_mail_user, kind) == 68);
static_assert(sizeof(__aps_mail_user) == 72);

#endif
