// Answers the requests of mail servers.
#include "serve/answer/Lookup.h"

#include <algorithm>
#include <exception>
#include <new>
#include <optional>
#include <utility>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUserLookup.h"
#include "serve/image/AddressKey.h"
#include "tables/TableNames.h"

namespace Tessel::Serve {

namespace {

// Replies that are kept of each map, and up to which size. Longer ones are few, but cost more to
// compose.
constexpr std::size_t s_repliesGroups = 32768;
constexpr std::size_t s_shortReply = 1024;
constexpr std::size_t s_longRepliesGroups = 16;
constexpr std::size_t s_longReply = 1U << 20U;

// Longest time for which an answer is kept that may change while the tables do not.
constexpr std::chrono::milliseconds s_longestVolatile{1000};

bool s_hasTable(Map map) {
  return map == Map::Alias || map == Map::MaskPublic || map == Map::MaskPrivate;
}

std::string_view s_local(std::string_view address) {
  return address.substr(0, address.rfind('@'));
}

std::string_view s_domain(std::string_view address) {
  return address.substr(address.rfind('@') + 1);
}

// The local part of the address `text` without quotes.
std::string s_plainLocal(std::string_view text) {
  if (!text.starts_with('"')) return std::string(s_local(text));
  return EmailAddress::rfc5321Parse(text, false).local();
}

}  // namespace

struct Lookup::MapRoute {
  Map map = Map::None;
  TablePointer table;  // Null for maps without one.
  ImagePointer image;
  std::uint64_t generation = 0;
  AnswerCache replies{s_repliesGroups, s_shortReply};
  AnswerCache longReplies{s_longRepliesGroups, s_longReply};

  // The reply that is known for `key` at `now`; null when there is none.
  [[nodiscard]] const AnswerCache::Entry* find(std::string_view key, Clock::time_point now) const {
    const AnswerCache::Entry* const known = replies.find(key, now);
    return known != nullptr ? known : longReplies.find(key, now);
  }

  void keep(AnswerCache::Entry entry) {
    const bool isShort = entry.key().size() + entry.reply().size() <= s_shortReply;
    (isShort ? replies : longReplies).keep(std::move(entry));
  }

  void forget() {
    replies.clear();
    longReplies.clear();
  }
};

Lookup::Lookup(const Settings& settings, Tables& tables, Metrics& metrics, Log& log)
    : m_settings(settings), m_tables(tables), m_metrics(metrics), m_log(log) {}

Lookup::~Lookup() = default;

const std::string& Lookup::reply(std::string_view request) {
  const Clock::time_point start = Clock::now();
  const std::string& reply = replyAt(request, start);
  m_metrics.answered(m_map, m_result, Clock::now() - start);
  return reply;
}

const std::string& Lookup::replyAt(std::string_view request, Clock::time_point now) {
  const auto give = [this](const Answer& answer) -> const std::string& {
    m_result = answer.result;
    return m_reply = answer.reply();
  };
  m_map = Map::None;
  const std::size_t blank = request.find(' ');
  if (blank == std::string_view::npos) return give(Answer::perm("a request is MAP, blank, KEY"));
  MapRoute* const route = routeOf(request.substr(0, blank));
  if (route == nullptr) {
    if (m_map == Map::None) return give(Answer::perm("there is no such map"));
    return give(Answer::temp("there is no such table"));
  }
  if (route->table != nullptr) {
    const std::string why = refresh(*route, now);
    if (!why.empty()) return give(Answer::temp(why));
  }
  const std::string_view key = request.substr(blank + 1);
  const AnswerCache::Entry* const known = route->find(key, now);
  if (known != nullptr) {
    m_metrics.cacheHit();
    m_result = known->result();
    m_reply.assign(known->reply());
    return m_reply;
  }
  const Answer found = answer(*route, key, now);
  give(found);
  const bool isKept = route->table != nullptr && found.result != Result::Temp;
  const Clock::time_point until = found.isVolatile
                                      ? now + std::min(m_settings.refresh, s_longestVolatile)
                                      : Clock::time_point::max();
  if (isKept) route->keep({key, m_reply, m_result, until});
  return m_reply;
}

Lookup::MapRoute* Lookup::routeOf(std::string_view name) {
  const auto known = m_routes.find(name);
  if (known != m_routes.end()) {
    m_map = known->second->map;
    return known->second.get();
  }
  // To Postfix, what is before a ':' belongs to the path of the socket; it asks for "alias.NAME".
  const std::size_t separator = name.find_first_of(":.");
  m_map = mapOf(name.substr(0, separator));
  const bool hasTable = s_hasTable(m_map);
  if (!hasTable && separator != std::string_view::npos) m_map = Map::None;
  if (m_map == Map::None) return nullptr;
  auto route = std::make_unique<MapRoute>();
  route->map = m_map;
  if (hasTable) {
    const std::string table(separator == std::string_view::npos ? "" : name.substr(separator + 1));
    const TableKind kind = m_map == Map::Alias ? TableKind::Alias : TableKind::Mask;
    route->table = m_tables.find(Tool::sqlTableName(kind, table));
    if (route->table == nullptr) return nullptr;
  }
  return m_routes.emplace(std::string(name), std::move(route)).first->second.get();
}

std::string Lookup::refresh(MapRoute& route, Clock::time_point now) {
  const std::optional<Clock::duration> age = route.table->age(now);
  if (!age) return "the table could not be read yet";
  if (isTooOld(*age, m_settings)) {
    return "the database is unavailable, and the rows in memory are too old";
  }
  if (*age > s_outage) m_metrics.staleAnswer();
  const std::uint64_t generation = route.table->generation();
  if (generation != route.generation) {
    route.image = route.table->image();
    route.generation = generation;
    route.forget();
  }
  return "";
}

Answer Lookup::answer(MapRoute& route, std::string_view key, Clock::time_point now) {
  try {
    switch (route.map) {
      case Map::Alias:
        return aliasAnswer(route, key, now);
      case Map::MaskPublic:
      case Map::MaskPrivate:
        return maskAnswer(route, key);
      case Map::Mailbox:
        return mailboxAnswer(key);
      case Map::Domain:
        return domainAnswer(key);
      case Map::None:
        break;
    }
    return Answer::perm("there is no such map");
  } catch (const std::bad_alloc&) {
    return Answer::temp("out of memory");
  } catch (const Exception& exception) {
    m_log.debug(std::string("a request failed: ") + exception.what());
    return Answer::temp("the configuration of domains and mail users cannot be read");
  } catch (const std::exception& exception) {
    m_log.debug(std::string("a request failed: ") + exception.what());
    return Answer::temp("the request could not be answered");
  }
}

Answer Lookup::aliasAnswer(const MapRoute& route, std::string_view text, Clock::time_point now) {
  std::string key;
  if (!addressKey(text, key)) return Answer::notFound();
  if (Pages::isPage(key)) return page(route, key, "", now);
  Answer answer = expansion(route, key, "", now);
  if (answer.result != Result::NotFound) return answer;
  const ExtendedAddress cutAddress = cut(text);
  if (cutAddress.extension.empty() || !addressKey(cutAddress.base, key)) return answer;
  const std::string_view extension = kept(cutAddress);
  if (Pages::isPage(key)) return page(route, key, extension, now);
  return expansion(route, key, extension, now);
}

Answer Lookup::expansion(const MapRoute& route, const std::string& key, std::string_view extension,
                         Clock::time_point now) {
  const Expansion found = route.image->alias().expand(key);
  switch (found.kind) {
    case Expansion::Kind::NoAlias:
      return Answer::notFound();
    case Expansion::Kind::Broken:
      return Answer::temp("the row of this alias cannot be read");
    case Expansion::Kind::NoUsers:
      return Answer::temp("this alias means all users of a domain, which could not be read");
    case Expansion::Kind::Nobody: {
      Answer answer = Answer::perm("this alias reaches nobody");
      answer.isVolatile = found.dependsOnUsers;
      if (!found.dependsOnUsers) reportLoop(route, key);
      return answer;
    }
    case Expansion::Kind::Found:
      break;
  }
  std::vector<std::string> addresses;
  for (const EmailAddress& address : found.addresses) addresses.push_back(address.address());
  Pages& pages = route.table->pages();
  const bool isDivided = !pages.fit(extended(addresses, extension));
  if (isDivided) addresses = pages.divide(key, addresses, now);
  Answer answer = Answer::ok(joined(pages, addresses, extension));
  // What is kept must not outlive the pages that it names.
  answer.isVolatile = found.dependsOnUsers || isDivided;
  return answer;
}

Answer Lookup::page(const MapRoute& route, const std::string& key, std::string_view extension,
                    Clock::time_point now) {
  Pages& pages = route.table->pages();
  Answer answer;
  if (const auto addresses = pages.find(key, now)) {
    answer = Answer::ok(joined(pages, *addresses, extension));
  } else if (!isPageOfAnyTable(key, now)) {
    // Not "not found": the mail would be rejected for good. It is tried again, with the alias.
    return Answer::temp("this part of a list is gone; ask for the list again");
  }
  answer.isVolatile = true;
  return answer;
}

// A mail server that asks several maps asks each map for the pages of all of them.
bool Lookup::isPageOfAnyTable(std::string_view key, Clock::time_point now) const {
  const std::vector<TablePointer> tables = m_tables.all();
  return std::any_of(tables.begin(), tables.end(), [&](const TablePointer& table) {
    return table->pages().find(key, now).has_value();
  });
}

Answer Lookup::maskAnswer(const MapRoute& route, std::string_view text) const {
  const MaskImage& image = route.image->mask();
  const auto direction = route.map == Map::MaskPublic ? MaskImage::Direction::ToPublic
                                                      : MaskImage::Direction::ToPrivate;
  const char* const broken = "the row of this address cannot be read";
  std::string key;
  if (!addressKey(text, key)) return Answer::notFound();
  if (auto found = image.find(direction, key)) return Answer::ok(std::move(*found));
  if (image.isBroken(direction, key)) return Answer::temp(broken);
  // Before the wildcard rows: an address with a mask of its own must not be shown without it.
  const ExtendedAddress address = cut(text);
  std::string base;
  if (!address.extension.empty() && addressKey(address.base, base)) {
    if (const auto found = image.find(direction, base)) {
      return Answer::ok(withExtension(*found, kept(address), m_settings.delimiter));
    }
    if (image.isBroken(direction, base)) return Answer::temp(broken);
  }
  const auto domain = image.findDomain(direction, s_domain(key));
  if (!domain) {
    const std::string wildCard = std::string("*@").append(s_domain(key));
    return image.isBroken(direction, wildCard) ? Answer::temp(broken) : Answer::notFound();
  }
  if (s_local(key) == "*") return Answer::notFound();
  try {
    return Answer::ok(EmailAddress::create(s_plainLocal(text), *domain, false).address());
  } catch (const Exception&) {
    // Too long in the other domain, or without a local part: not an address there.
    return Answer::notFound();
  }
}

Answer Lookup::mailboxAnswer(std::string_view text) const {
  std::string key;
  if (!addressKey(text, key)) return Answer::notFound();
  const auto isMailbox = [](std::string_view address) {
    const CMF::MailUserAnswer user =
        CMF::findMailUser(std::string(s_domain(address)), std::string(s_local(address)));
    return user.state == CMF::MailUserAnswer::State::Found && user.kind != CMF::MailUserDisabled;
  };
  if (isMailbox(text) || isMailbox(key)) return Answer::ok(key);
  const ExtendedAddress address = cut(text);
  if (address.extension.empty() || !addressKey(address.base, key)) return Answer::notFound();
  return isMailbox(address.base) || isMailbox(key) ? Answer::ok(key) : Answer::notFound();
}

Answer Lookup::domainAnswer(std::string_view text) const {
  std::string key;
  if (!domainKey(text, key)) return Answer::notFound();
  const CMF::RefApsGwServerCache domains = CMF::RefApsGwServerCache::instance(false);
  const bool isServed = !domains->find(std::string(text)).isNull() || !domains->find(key).isNull();
  return isServed ? Answer::ok(key) : Answer::notFound();
}

void Lookup::reportLoop(const MapRoute& route, const std::string& key) {
  const std::vector<std::string> loop = route.image->alias().loop(key);
  if (loop.empty()) return;
  m_log.warning(
      "table " + route.table->sqlName() +
      ": mail for an alias was rejected because it leads into an alias loop and reaches nobody; "
      "'tsl-address-map check' names it");
  if (!m_log.isDebug()) return;
  std::string text;
  for (const std::string& address : loop) text += (text.empty() ? "" : " -> ") + address;
  m_log.debug("alias loop: " + text);
}

ExtendedAddress Lookup::cut(std::string_view text) const {
  if (m_settings.extension == ExtensionRule::Off) return {std::string(text), ""};
  return cutExtension(text, m_settings.delimiter);
}

std::string_view Lookup::kept(const ExtendedAddress& address) const {
  if (m_settings.extension == ExtensionRule::Keep) return address.extension;
  return {};
}

std::vector<std::string> Lookup::extended(std::vector<std::string> addresses,
                                          std::string_view extension) const {
  if (extension.empty()) return addresses;
  for (std::string& address : addresses) {
    address = withExtension(address, extension, m_settings.delimiter);
  }
  return addresses;
}

std::string Lookup::joined(const Pages& pages, const std::vector<std::string>& addresses,
                           std::string_view extension) const {
  std::vector<std::string> given = extended(addresses, extension);
  if (!pages.fit(given)) given = addresses;
  std::string text;
  for (const std::string& address : given) {
    if (!text.empty()) text += ',';
    text += address;
  }
  return text;
}

}  // namespace Tessel::Serve
