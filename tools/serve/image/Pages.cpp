// Long answers in pages.
#include "serve/image/Pages.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include "base/bytes.h"
#include "serve/image/AddressKey.h"

namespace Tessel::Serve {

namespace {

constexpr std::string_view s_prefix = "tslpage";
constexpr std::size_t s_tokenSize = 24;
constexpr std::chrono::hours s_keptUnused{1};
constexpr std::size_t s_mostBytes = 256U << 20U;
// Octets of an address, and a number of a page that is as long as any.
constexpr std::size_t s_maxAddress = 254;
constexpr std::size_t s_mostPages = 999999;

std::string s_newToken() {
  std::array<char, s_tokenSize / 2> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  std::string token;
  for (const char byte : bytes) appendHex(token, byte);
  return token;
}

// The parts of the name of a page.
struct PageName {
  std::string_view token;
  std::size_t number = 0;
};

std::optional<PageName> s_parse(std::string_view key) {
  if (!key.starts_with(s_prefix)) return std::nullopt;
  key.remove_prefix(s_prefix.size());
  const std::size_t at = key.find('@');
  if (at == std::string_view::npos || at < s_tokenSize + 2 || key[s_tokenSize] != 'x') {
    return std::nullopt;
  }
  PageName name{key.substr(0, s_tokenSize), 0};
  if (name.token.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
    return std::nullopt;
  }
  const char* const end = key.data() + at;
  const auto read = std::from_chars(key.data() + s_tokenSize + 1, end, name.number);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return name;
}

std::string s_address(const std::string& token, std::size_t number, std::string_view domain) {
  std::string address(s_prefix);
  return address.append(token).append("x").append(std::to_string(number)).append(domain);
}

}  // namespace

bool Pages::fit(const std::vector<std::string>& addresses) const {
  std::size_t size = 0;
  for (const std::string& address : addresses) size += address.size() + 1;
  return addresses.size() <= m_most && size <= m_maxSize + 1;
}

std::vector<std::string> Pages::divide(const std::string& key,
                                       const std::vector<std::string>& addresses,
                                       Clock::time_point now) {
  return m_kept.with([&](Kept& kept) {
    const auto newest = kept.newest.find(key);
    if (newest != kept.newest.end()) {
      Set& set = *newest->second;
      const Set same = make(set.token, key, addresses);
      if (same.pages == set.pages && same.top == set.top) {
        set.used = now;
        return set.top;
      }
    }
    const auto set = std::make_shared<Set>(make(s_newToken(), key, addresses));
    set->used = now;
    kept.size += set->size;
    kept.byToken[set->token] = set;
    kept.newest[key] = set;
    makeRoom(kept, now);
    return set->top;
  });
}

bool Pages::isPage(std::string_view key) {
  return s_parse(key).has_value();
}

std::optional<std::vector<std::string>> Pages::find(std::string_view key, Clock::time_point now) {
  const std::optional<PageName> name = s_parse(key);
  if (!name) return std::nullopt;
  return m_kept.with([&](Kept& kept) -> std::optional<Page> {
    const auto found = kept.byToken.find(name->token);
    if (found == kept.byToken.end()) return std::nullopt;
    Set& set = *found->second;
    if (name->number >= set.pages.size()) return std::nullopt;
    set.used = now;
    return set.pages[name->number];
  });
}

// `addresses` in as few pages as they fit in.
Pages::PageList Pages::cut(const std::vector<std::string>& addresses) const {
  PageList pages(1);
  std::size_t size = 0;
  for (const std::string& address : addresses) {
    const std::size_t more = address.size() + 1 + m_reserve;
    const bool isFull = pages.back().size() == m_most || size + more > m_maxSize + 1;
    if (isFull && !pages.back().empty()) {
      pages.emplace_back();
      size = 0;
    }
    pages.back().push_back(address);
    size += more;
  }
  return pages;
}

Pages::Set Pages::make(const std::string& token, const std::string& key,
                       const std::vector<std::string>& addresses) const {
  Set set{token, key, {}, {}, 0, {}};
  const std::string_view domain = std::string_view(key).substr(key.rfind('@'));
  Page itself;
  Page others;
  std::string addressOf;
  for (const std::string& address : addresses) {
    const bool isItself = addressKey(address, addressOf) && addressOf == key;
    if (!isItself) others.push_back(address);
    // One spelling of it is enough, and leaves room for another page.
    if (isItself && itself.empty()) itself.push_back(address);
  }
  // The top of `level`, with the alias itself.
  const auto top = [&itself](const PageList& level) {
    Page page = itself;
    page.insert(page.end(), level.front().begin(), level.front().end());
    return page;
  };
  PageList level = cut(others);
  while (level.size() > 1 || cut(top(level)).size() > 1) {
    Page names;
    // Nobody could ask for them: they would not be addresses.
    if (s_address(token, s_mostPages, domain).size() > s_maxAddress) {
      throw std::length_error("the name of the domain is too long for pages");
    }
    for (Page& page : level) {
      names.push_back(s_address(token, set.pages.size(), domain));
      for (const std::string& address : page) set.size += address.size();
      set.pages.push_back(std::move(page));
    }
    level = cut(names);
  }
  set.top = top(level);
  return set;
}

// Drops what was not asked for lately, and the oldest if there is still too much.
void Pages::makeRoom(Kept& kept, Clock::time_point now) {
  while (kept.byToken.size() > 1) {
    auto oldest = kept.byToken.begin();
    for (auto set = kept.byToken.begin(); set != kept.byToken.end(); ++set) {
      if (set->second->used < oldest->second->used) oldest = set;
    }
    if (kept.size <= s_mostBytes && now - oldest->second->used < s_keptUnused) return;
    const SetPointer set = oldest->second;
    const auto newest = kept.newest.find(set->key);
    if (newest != kept.newest.end() && newest->second == set) kept.newest.erase(newest);
    kept.size -= set->size;
    kept.byToken.erase(oldest);
  }
}

}  // namespace Tessel::Serve
