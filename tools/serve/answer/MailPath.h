// What a mail server does with mail to an address, as far as its lookups decide that.
#ifndef TSL_TOOLS_SERVE_ANSWER_MAILPATH_H
#define TSL_TOOLS_SERVE_ANSWER_MAILPATH_H

#include <functional>
#include <string>
#include <vector>

namespace Tessel::Serve {

// Asks the map `map` for `key`: the reply, as mail servers get it. May throw.
using AskMap = std::function<std::string(const std::string& map, const std::string& key)>;

// What becomes of mail for a final recipient.
enum class Fate {
  Mailbox,    // It is delivered to a mailbox here.
  Elsewhere,  // The domain is not one of the configuration: it goes to another host.
  Refused,    // The domain is, and has no such user, or a disabled one.
  Waits,      // A lookup fails now.
};

// "mailbox", "elsewhere", "refused" or "waits".
const char* textOf(Fate fate);

// A lookup and its reply.
struct MailStep {
  std::string map;
  std::string key;
  std::string reply;
  std::string base{};  // `key` without its tag, when the reply is made from the row of that.

  bool operator==(const MailStep&) const = default;
};

struct MailRecipient {
  std::string address;
  Fate fate;
  std::string base{};  // The mailbox, when that has not the tag of the address.

  bool operator==(const MailRecipient&) const = default;
};

// A value.
struct MailPath {
  std::vector<MailStep> steps;            // Those of masks and aliases, in their order.
  std::vector<MailRecipient> recipients;  // None when a step fails.
  Fate fate = Fate::Waits;                // The worst of them.

  bool operator==(const MailPath&) const = default;
};

// Follows `address` in the way of docs/postfix.md: its mask, its alias in the tables `table` (a
// store name; empty for the base tables), and the users and domains of what that leads to. Tags
// begin with one of `delimiters`. Exceptions of `ask` pass.
MailPath mailPathOf(const std::string& address, const std::string& table,
                    const std::string& delimiters, const AskMap& ask);

}  // namespace Tessel::Serve

#endif
