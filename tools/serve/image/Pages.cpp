// Long answers in pages.
#include "serve/image/Pages.h"

#include <algorithm>
#include <charconv>
#include <new>
#include <stdexcept>

#include "address/EmailAddressGrammar.h"
#include "base/bytes.h"
#include "tables/AddressKey.h"

namespace Tessel::Serve {

namespace {

constexpr std::string_view s_prefix = "tslpage";
constexpr std::size_t s_tokenSize = 24;
constexpr std::chrono::hours s_keptUnused = 1h;
// What a set of pages takes in the maps, about.
constexpr std::size_t s_overhead = 512;
// A number of a page that is as long as any.
constexpr std::size_t s_mostPages = 999999;

// The parts of the name of a page.
struct PageName {
  std::string_view token;
  std::size_t number{};
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

std::string s_joined(const std::vector<std::string>& addresses) {
  std::string text;
  for (const std::string& address : addresses) text += (text.empty() ? "" : ",") + address;
  text.shrink_to_fit();
  return text;
}

}  // namespace

Pages::~Pages() {
  m_kept.with([this](Kept& kept) {
    for (const auto& [token, set] : kept.byToken) m_budget.give(set->size());
  });
}

bool Pages::fit(const std::vector<std::string>& addresses) const {
  std::size_t size = 0;
  for (const std::string& address : addresses) size += address.size() + 1;
  return addresses.size() <= m_limits.most && size <= m_limits.maxSize + 1;
}

std::size_t Pages::Set::size() const {
  std::size_t size = s_overhead + blockSize(pages.data()) + blockSize(top);
  for (const std::string& page : pages) size += blockSize(page);
  return size;
}

std::string Pages::divide(std::uint64_t table, const std::string& key, const Addresses& addresses,
                          Clock::time_point now) {
  const AliasId alias(table, key);
  const SetPointer newest = m_kept.with([&alias](const Kept& kept) {
    const auto found = kept.newest.find(alias);
    return found == kept.newest.end() ? nullptr : found->second;
  });
  // Long lists take a while, and others wait for the lock.
  if (newest != nullptr) {
    const Set same = make(newest->token, table, key, addresses);
    if (same.pages == newest->pages && same.top == newest->top) {
      const bool isThere = m_kept.with([&](Kept& kept) {
        newest->used = now;
        return kept.byToken.contains(newest->token);
      });
      if (isThere) return same.top;
    }
  }
  const auto set = std::make_shared<Set>(make(randomHex(s_tokenSize / 2), table, key, addresses));
  set->used = now;
  m_kept.with([&](Kept& kept) {
    while (!m_budget.take(set->size())) {
      if (!dropOldest(kept, Clock::time_point::max())) throw std::bad_alloc();
    }
    kept.byToken[set->token] = set;
    kept.newest[alias] = set;
  });
  return set->top;
}

bool Pages::isPage(std::string_view key) {
  return s_parse(key).has_value();
}

std::optional<Pages::Page> Pages::find(std::string_view key, Clock::time_point now) {
  const std::optional<PageName> name = s_parse(key);
  if (!name) return std::nullopt;
  return m_kept.with([&](Kept& kept) -> std::optional<Page> {
    const auto found = kept.byToken.find(name->token);
    if (found == kept.byToken.end()) return std::nullopt;
    Set& set = *found->second;
    if (name->number >= set.pages.size()) return std::nullopt;
    set.used = now;
    return Page{set.table, set.pages[name->number]};
  });
}

bool Pages::isWhole(std::string_view answer, Clock::time_point now) {
  // The last address is that of a page if any is.
  const std::optional<PageName> name = s_parse(answer.substr(answer.rfind(',') + 1));
  if (!name) return true;
  return m_kept.with([&](Kept& kept) {
    const auto found = kept.byToken.find(name->token);
    if (found == kept.byToken.end()) return false;
    found->second->used = now;
    return true;
  });
}

void Pages::sweep(Clock::time_point now) {
  m_kept.with([&](Kept& kept) {
    while (dropOldest(kept, now - s_keptUnused)) continue;
  });
}

// `addresses` in as few pages as they fit in.
std::vector<Pages::Addresses> Pages::cut(const Addresses& addresses) const {
  std::vector<Addresses> pages(1);
  std::size_t size = 0;
  for (const std::string& address : addresses) {
    const std::size_t more = address.size() + 1 + m_limits.reserve;
    const bool isFull = pages.back().size() == m_limits.most || size + more > m_limits.maxSize + 1;
    if (isFull && !pages.back().empty()) {
      pages.emplace_back();
      size = 0;
    }
    pages.back().push_back(address);
    size += more;
  }
  return pages;
}

Pages::Set Pages::make(const std::string& token, std::uint64_t table, const std::string& key,
                       const Addresses& addresses) const {
  Set set{token, table, key, {}, {}, {}};
  const std::string_view domain = std::string_view(key).substr(key.rfind('@'));
  Addresses itself;
  Addresses others;
  std::string addressOf;
  for (const std::string& address : addresses) {
    const bool isItself = Tool::addressKey(address, addressOf) && addressOf == key;
    if (!isItself) others.push_back(address);
    // One spelling of it is enough, and leaves room for another page.
    if (isItself && itself.empty()) itself.push_back(address);
  }
  // The top of `level`, with the alias itself.
  const auto top = [&itself](const std::vector<Addresses>& level) {
    Addresses page = itself;
    page.insert(page.end(), level.front().begin(), level.front().end());
    return page;
  };
  std::vector<Addresses> level = cut(others);
  while (level.size() > 1 || cut(top(level)).size() > 1) {
    Addresses names;
    // Nobody could ask for them: they would not be addresses.
    if (s_address(token, s_mostPages, domain).size() > s_emailAddressMaxWhole) {
      throw std::length_error("the name of the domain is too long for pages");
    }
    for (const Addresses& page : level) {
      names.push_back(s_address(token, set.pages.size(), domain));
      set.pages.push_back(s_joined(page));
    }
    level = cut(names);
  }
  set.top = s_joined(top(level));
  return set;
}

bool Pages::dropOldest(Kept& kept, Clock::time_point since) {
  const auto oldest = std::min_element(
      kept.byToken.begin(), kept.byToken.end(),
      [](const auto& a, const auto& b) { return a.second->used < b.second->used; });
  if (oldest == kept.byToken.end() || oldest->second->used > since) return false;
  const SetPointer set = oldest->second;
  const auto newest = kept.newest.find({set->table, set->key});
  if (newest != kept.newest.end() && newest->second == set) kept.newest.erase(newest);
  m_budget.give(set->size());
  kept.byToken.erase(oldest);
  return true;
}

}  // namespace Tessel::Serve
