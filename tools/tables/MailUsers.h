// The mail users of the configuration, to find out whether an address is one.
#ifndef TSL_TOOLS_TABLES_MAILUSERS_H
#define TSL_TOOLS_TABLES_MAILUSERS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "failure/Failure.h"
#include "tables/AddressIndex.h"

namespace Tessel::Tool {

// The users of each domain are read when the domain is first asked for. After a failure to read the
// configuration nothing is known. One thread.
class MailUsers {
 public:
  // What the configuration says about an address.
  enum class Kind {
    Foreign,  // Its domain is not in the configuration.
    Nobody,   // Its domain is, and has no such mail user.
    Mailbox,  // It is a mail user that belongs to "all users" of its domain.
    Other,    // It is a mail user of another kind.
    Unknown,  // The configuration cannot be read.
  };

  // Checks whether there is a configuration.
  MailUsers();

  // What `address` is, a text as `EmailAddress::address()` gives it.
  Kind kindOf(std::string_view address);
  // Number of user mailboxes of `domain`; nothing when the domain is not in the configuration, or
  // nothing is known.
  std::optional<std::size_t> mailboxes(std::string_view domain);
  // The addresses of the user mailboxes of `domain`.
  std::vector<std::string> mailboxesOf(std::string_view domain);

  // Why nothing is known; nothing while all is well.
  [[nodiscard]] const std::optional<Failure>& failure() const { return m_failure; }

 private:
  struct Domain {
    bool isServed = false;
    AddressIndex users;            // Whole addresses.
    std::vector<bool> areMailbox;  // By their numbers.
    std::size_t mailboxes = 0;
  };

  const Domain& domain(std::string_view name);
  void read(const std::string& name, Domain& domain);

  std::map<std::string, Domain> m_domains;  // By the name in small letters.
  std::string m_lastName;                   // Members of an alias are mostly of one domain.
  const Domain* m_last = nullptr;
  std::optional<Failure> m_failure;
};

}  // namespace Tessel::Tool

#endif
