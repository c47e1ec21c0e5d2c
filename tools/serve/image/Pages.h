// Long answers in pages: the mail server gets addresses of pages instead, and looks each of them up
// like every address of an answer.
#ifndef TSL_TOOLS_SERVE_IMAGE_PAGES_H
#define TSL_TOOLS_SERVE_IMAGE_PAGES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/MemoryBudget.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// The pages of all tables. The address of a page is "tslpage", 24 hexadecimal digits that nobody
// can guess (or else strangers could write to a part of a list), "x", a number, and the domain of
// the alias, so that mail servers treat it as they treat the alias. Any thread may call any
// operation.
class Pages {
 public:
  // What lists of addresses must fit into.
  struct Limits {
    std::size_t most;     // Addresses of an answer.
    std::size_t maxSize;  // Bytes of an answer, which has its addresses joined by ",".
    std::size_t reserve;  // Bytes by which an extension makes each address of a page longer.
  };

  // Takes its memory from `budget`, which must outlive the object.
  Pages(const Limits& limits, MemoryBudget& budget) : m_limits(limits), m_budget(budget) {}
  ~Pages();
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

  // True when `addresses` fit into one answer.
  [[nodiscard]] bool fit(const std::vector<std::string>& addresses) const;
  [[nodiscard]] std::size_t maxSize() const noexcept { return m_limits.maxSize; }

  // The addresses of pages, joined by ",", that hold `addresses`, the expansion of the alias with
  // `key` of the table with the number `table`, which do not fit into one answer. An alias that
  // names itself is listed next to its pages: on one of them a mail server would take it for one
  // more alias. The same addresses give the same pages again. Throws std::system_error when the
  // system has no random numbers, std::length_error when the name of the domain leaves no room for
  // the addresses of pages, std::bad_alloc when the budget does not suffice.
  std::string divide(std::uint64_t table, const std::string& key,
                     const std::vector<std::string>& addresses, Clock::time_point now);

  // True for the key of the address of a page, of any table, also of a page that is gone.
  static bool isPage(std::string_view key);

  struct Page {
    std::uint64_t table;  // Whose it is.
    std::string addresses;
  };

  // The page of the address with `key`; nothing when it is gone: after an hour in which it was not
  // asked for, or when there is no memory for it any more. It never changes, whatever happens to
  // the alias.
  std::optional<Page> find(std::string_view key, Clock::time_point now);

  // True unless `answer`, addresses joined by ",", names pages that are gone. They count as asked
  // for.
  bool isWhole(std::string_view answer, Clock::time_point now);

  // Gives back the memory of pages that are gone.
  void sweep(Clock::time_point now);

 private:
  using Addresses = std::vector<std::string>;

  // The pages of one expansion.
  struct Set {
    // Bytes that it takes.
    [[nodiscard]] std::size_t size() const;

    std::string token;
    std::uint64_t table;
    std::string key;                 // Of the alias.
    std::vector<std::string> pages;  // Pages of pages come after those that they name.
    std::string top;
    Clock::time_point used;
  };
  using SetPointer = std::shared_ptr<Set>;
  using AliasId = std::pair<std::uint64_t, std::string>;

  struct Kept {
    std::map<std::string, SetPointer, std::less<>> byToken;
    std::map<AliasId, SetPointer> newest;
  };

  [[nodiscard]] std::vector<Addresses> cut(const Addresses& addresses) const;
  [[nodiscard]] Set make(const std::string& token, std::uint64_t table, const std::string& key,
                         const Addresses& addresses) const;
  // Drops the set that was not asked for longest, if it was not since `since`.
  bool dropOldest(Kept& kept, Clock::time_point since);

  const Limits m_limits;
  MemoryBudget& m_budget;
  Guarded<Kept> m_kept;
};

}  // namespace Tessel::Serve

#endif
