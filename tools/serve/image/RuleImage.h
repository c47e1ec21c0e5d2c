// The rules of aliases in memory: who may write to them, who may send as them, and until when they
// are there.
#ifndef TSL_TOOLS_SERVE_IMAGE_RULEIMAGE_H
#define TSL_TOOLS_SERVE_IMAGE_RULEIMAGE_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "serve/image/BrokenRows.h"
#include "serve/image/RowStore.h"
#include "tables/AddressIndex.h"
#include "tables/AliasRule.h"

namespace Tessel::Serve {

// The statement whose rows an image is made of: the SQL name of the table, a blank, and the name of
// the alias; and what the service needs of the rule.
extern const char* const s_selectRules;

// The rows never change. Aliases are found by the SQL names of their tables and the keys of their
// addresses (see AddressKey.h). The rule of a whole table is that of each alias without one of its
// own. A row that is no rule is left out, and whoever it is for is `Unknown`. Any thread may call
// any operation.
class RuleImage {
 public:
  // Reads all rows of `source`. Throws what `source` throws.
  explicit RuleImage(const RowSource& source);
  RuleImage(const RuleImage&) = delete;
  RuleImage& operator=(const RuleImage&) = delete;

  // Whether an alias is there, as far as its rule says.
  enum class Presence { There, Expired, Unknown };
  // That of the alias with `key` of the table `sqlName` at `now`.
  [[nodiscard]] Presence presence(std::string_view sqlName, std::string_view key,
                                  std::chrono::sys_seconds now) const;
  // True when everybody may write to every alias.
  [[nodiscard]] bool isOpen() const { return m_isOpen && !m_brokenRows.hasKeys(); }
  // False when every alias is there for ever.
  [[nodiscard]] bool hasExpiries() const { return !m_expiries.empty() || m_brokenRows.hasKeys(); }
  // How many rules have expired by `now`, and when the next one does, if one will.
  [[nodiscard]] std::size_t expired(std::chrono::sys_seconds now) const;
  [[nodiscard]] std::optional<std::chrono::sys_seconds> nextExpiry(
      std::chrono::sys_seconds now) const;

  // The rule of the alias with `key` of the table `sqlName`, without what is for people. Nothing
  // when nobody knows it.
  [[nodiscard]] std::optional<Tool::AliasRule> rule(std::string_view sqlName,
                                                    std::string_view key) const;

  // Bytes of memory that it takes, about.
  [[nodiscard]] std::size_t bytes() const noexcept {
    return m_rows.bytes() + m_keys.bytes() + m_brokenRows.rows().bytes() +
           (m_expires.capacity() + m_expiries.capacity()) * sizeof(std::chrono::sys_seconds);
  }
  [[nodiscard]] const RowStore& rows() const noexcept { return m_rows; }
  [[nodiscard]] const BrokenRows& brokenRows() const noexcept { return m_brokenRows; }

 private:
  struct Found {
    bool isKnown;
    RowStore::Id row;  // Or Tool::AddressIndex::s_none: there is no rule.
  };

  void take(std::string_view name, std::string_view text);
  [[nodiscard]] Found find(std::string_view sqlName, std::string_view key) const;

  RowStore m_rows;
  Tool::AddressIndex m_keys;  // The number of a key is that of its row.
  BrokenRows m_brokenRows;
  bool m_isOpen = true;                              // Of the rules that can be read.
  std::vector<std::chrono::sys_seconds> m_expires;   // By the number of the row; `max`: never.
  std::vector<std::chrono::sys_seconds> m_expiries;  // Of all rows, in ascending order.
};

// The rules at one time; none by default. A value.
struct Rules {
  std::shared_ptr<const RuleImage> image;  // Null: there are none.
  std::chrono::sys_seconds now;

  [[nodiscard]] bool hasExpiries() const { return image != nullptr && image->hasExpiries(); }
  [[nodiscard]] RuleImage::Presence presence(std::string_view sqlName, std::string_view key) const {
    return image == nullptr ? RuleImage::Presence::There : image->presence(sqlName, key, now);
  }
};

}  // namespace Tessel::Serve

#endif
