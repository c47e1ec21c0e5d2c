// The domains and mail users of the configuration, found in any spelling.
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
#include "tables/SpellingIndex.h"

namespace Tessel::Tool {

// A domain as the configuration has it.
struct StoredDomain {
  std::string name;
  std::uint32_t id;
};

// A mail user as the configuration has it.
struct StoredUser {
  std::string domain;
  std::string name;
  std::int32_t kind;

  bool operator==(const StoredUser&) const = default;
  [[nodiscard]] std::string address() const { return name + "@" + domain; }
};

// The domains are read first, the users of each when it is first asked for. After a failure to read
// the configuration nothing is known. One thread.
class MailUsers {
 public:
  // What the configuration says about an address.
  enum class Kind {
    Foreign,   // Its domain is not in the configuration.
    Nobody,    // Its domain is, and has no such mail user.
    Mailbox,   // It is a mail user that belongs to "all users" of its domain.
    Disabled,  // It is a mail user whose mail is refused.
    Other,     // It is a mail user of another kind.
    Unknown,   // The configuration cannot be read.
  };

  MailUsers();

  // What `address` is.
  Kind kindOf(std::string_view address);
  // Number of user mailboxes of `domain`; nothing when the domain is not in the configuration, or
  // nothing is known.
  std::optional<std::size_t> mailboxes(std::string_view domain);
  // The addresses of the user mailboxes of `domain`, in that spelling of it.
  std::vector<std::string> mailboxesOf(std::string_view domain);

  // The spellings in which `domain` is stored: none when it is not, and more than one when a
  // program that compares them letter by letter has stored it again.
  [[nodiscard]] std::vector<StoredDomain> spellingsOf(std::string_view domain) const;
  // All of them, by their comparisonDomain().
  using Domains = std::multimap<std::string, StoredDomain>;
  [[nodiscard]] const Domains& domains() const { return m_stored; }
  // The mail users that are spellings of `address`.
  std::vector<StoredUser> find(std::string_view address);
  // The mail users of all spellings of `domain`, those together that are spellings of one address.
  std::vector<std::vector<StoredUser>> usersOf(std::string_view domain);

  // Why nothing is known; nothing while all is well.
  [[nodiscard]] const std::optional<Failure>& failure() const { return m_failure; }
  // True when that is because there is no configuration yet.
  [[nodiscard]] bool isAbsent() const { return m_isAbsent; }
  // Throws the failure, if there is one.
  void require() const;

 private:
  struct Domain {
    bool isServed = false;
    SpellingIndex users;              // Their addresses, as they are stored first.
    std::vector<std::int32_t> kinds;  // By the number of the address.
    std::multimap<SpellingIndex::Id, StoredUser> others;  // Further spellings of the addresses.
    std::size_t mailboxes = 0;

    [[nodiscard]] std::vector<StoredUser> at(SpellingIndex::Id user) const;
    [[nodiscard]] Kind kindOf(SpellingIndex::Id user) const;
  };

  Domain& domain(std::string_view name);
  void read(const std::string& key, Domain& domain);

  Domains m_stored;
  std::map<std::string, Domain> m_domains;  // By comparisonDomain().
  std::string m_lastName;                   // Members of an alias are mostly of one domain.
  Domain* m_last = nullptr;
  std::optional<Failure> m_failure;
  bool m_isAbsent = false;
};

}  // namespace Tessel::Tool

#endif
