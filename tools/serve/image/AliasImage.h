// An alias table in memory, from which requests are answered.
#ifndef TSL_TOOLS_SERVE_IMAGE_ALIASIMAGE_H
#define TSL_TOOLS_SERVE_IMAGE_ALIASIMAGE_H

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"
#include "serve/image/BrokenRows.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/RowStore.h"
#include "serve/image/RuleImage.h"
#include "tables/AddressIndex.h"

namespace Tessel::Serve {

// What an address expands to.
struct Expansion {
  enum class Kind {
    NoAlias,
    Found,    // `addresses` are the final addresses, at least one.
    Nobody,   // An alias that reaches nobody.
    Broken,   // An alias whose row, or that of an alias it leads to, cannot be read.
    NoUsers,  // An alias for all users of a domain whose users are unknown.
    NoRule,   // An alias that may have expired, or that leads to one: its rule cannot be read.
    Unknown,  // It takes longer than there was time for.
  };

  Kind kind = Kind::NoAlias;
  std::set<EmailAddress> addresses;
  // True when it also depends on the mail users of the configuration, which change independently.
  bool dependsOnUsers = false;
  bool hasExpired = false;  // Aliases that have expired were left out.
};

// Whether the alias with `key` is there. Without it all are.
using PresenceOf = std::function<RuleImage::Presence(std::string_view key)>;

// How much time there is for an expansion.
enum class Effort {
  Short,  // A fraction of a millisecond, which is enough for a thousand addresses.
  Any,
};

// The rows never change. Their texts lie in one block and are parsed when they are asked for; the
// library's expander walks over them. A row that cannot be read is left out, and of two rows of one
// address (see AddressKey.h) the second. Any thread may call any operation.
class AliasImage {
 public:
  // Reads all rows of `source`: name and members. Throws what `source` throws.
  explicit AliasImage(const RowSource& source);
  AliasImage(const AliasImage&) = delete;
  AliasImage& operator=(const AliasImage&) = delete;

  // What the address with `key` expands to; `key` is as Tool::addressKey() gives it.
  // `listUsers` knows the mail users; without it an alias for all users is `NoUsers`. An alias that
  // has expired is not there; where others name it, nothing is.
  [[nodiscard]] Expansion expand(std::string_view key, Effort effort = Effort::Any,
                                 const ListUsers& listUsers = {},
                                 const PresenceOf& presenceOf = {}) const;

  // True when the address with `key` is an alias, also one whose row cannot be read.
  [[nodiscard]] bool isAlias(std::string_view key) const;

  // The members of the alias with `key` as the table has them; nothing when they cannot be read.
  // Requires: isAlias().
  [[nodiscard]] std::optional<std::string_view> membersText(std::string_view key) const;

  // An alias loop that the alias with `key` leads into, its first address also at the end; empty
  // when there is none.
  [[nodiscard]] std::vector<std::string> loop(std::string_view key) const;

  // Bytes of memory that it takes, about.
  [[nodiscard]] std::size_t bytes() const noexcept {
    return m_rows.bytes() + m_keys.bytes() + m_brokenRows.rows().bytes();
  }
  [[nodiscard]] const RowStore& rows() const noexcept { return m_rows; }
  [[nodiscard]] const BrokenRows& brokenRows() const noexcept { return m_brokenRows; }

 private:
  class LastRow;
  class Reader;

  // The members of row `id`, which can be read.
  [[nodiscard]] std::set<EmailAddress> members(RowStore::Id id) const;
  // The row of the address, or Tool::AddressIndex::s_none.
  [[nodiscard]] RowStore::Id rowOf(const EmailAddress& address) const;
  // True when one of `reached` is an alias whose row was left out.
  [[nodiscard]] bool reachesBroken(const std::set<EmailAddress>& reached) const;

  RowStore m_rows;
  Tool::AddressIndex m_keys;  // The number of a key is that of its row.
  BrokenRows m_brokenRows;
};

}  // namespace Tessel::Serve

#endif
