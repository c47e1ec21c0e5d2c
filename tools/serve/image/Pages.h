// Long answers in pages: the mail server gets addresses of pages instead, and looks each of them up
// like every address of an answer.
#ifndef TSL_TOOLS_SERVE_IMAGE_PAGES_H
#define TSL_TOOLS_SERVE_IMAGE_PAGES_H

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/Settings.h"

namespace Tessel::Serve {

// The pages of one table. The address of a page is "tslpage", 24 hexadecimal digits that nobody can
// guess (or else strangers could write to a part of a list), "x", a number, and the domain of the
// alias, so that mail servers treat it as they treat the alias. Any thread may call any operation.
class Pages {
 public:
  // An answer has up to `most` addresses and, joined by ",", `maxSize` bytes. Pages are that much
  // shorter that each of their addresses may get an extension of `reserve` bytes.
  Pages(std::size_t most, std::size_t maxSize, std::size_t reserve)
      : m_most(most), m_maxSize(maxSize), m_reserve(reserve) {}

  // True when `addresses` fit into one answer.
  [[nodiscard]] bool fit(const std::vector<std::string>& addresses) const;

  // The addresses of pages that hold `addresses`, the expansion of the alias with `key`, which do
  // not fit into one answer. An alias that names itself is listed next to its pages: on one of them
  // a mail server would take it for one more alias. The same addresses give the same pages again.
  // Throws std::system_error when the system has no random numbers, std::length_error when the name
  // of the domain leaves no room for the addresses of pages.
  std::vector<std::string> divide(const std::string& key, const std::vector<std::string>& addresses,
                                  Clock::time_point now);

  // True for the key of the address of a page, of this table or another one, also of a page that is
  // gone.
  static bool isPage(std::string_view key);

  // What is on the page; nothing when it is gone: after an hour in which it was not asked for, or
  // when there are too many of them. It never changes, whatever happens to the alias.
  std::optional<std::vector<std::string>> find(std::string_view key, Clock::time_point now);

 private:
  using Page = std::vector<std::string>;
  using PageList = std::vector<Page>;

  // The pages of one expansion.
  struct Set {
    std::string token;
    std::string key;  // Of the alias.
    PageList pages;   // Pages of pages come after those that they name.
    Page top;
    std::size_t size = 0;  // Bytes of all addresses.
    Clock::time_point used;
  };
  using SetPointer = std::shared_ptr<Set>;

  struct Kept {
    std::map<std::string, SetPointer, std::less<>> byToken;
    std::map<std::string, SetPointer, std::less<>> newest;  // By the key of the alias.
    std::size_t size = 0;                                   // Bytes of all pages.
  };

  [[nodiscard]] PageList cut(const std::vector<std::string>& addresses) const;
  [[nodiscard]] Set make(const std::string& token, const std::string& key,
                         const std::vector<std::string>& addresses) const;
  static void makeRoom(Kept& kept, Clock::time_point now);

  const std::size_t m_most;
  const std::size_t m_maxSize;
  const std::size_t m_reserve;
  Guarded<Kept> m_kept;
};

}  // namespace Tessel::Serve

#endif
