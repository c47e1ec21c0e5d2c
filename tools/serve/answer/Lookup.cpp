// Answers the requests of mail servers.
#include "serve/answer/Lookup.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <set>
#include <utility>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "base/sizes.h"
#include "base/stringCompareNoCase.h"
#include "serve/answer/AliasAnswer.h"
#include "serve/answer/DisabledUser.h"
#include "tables/AddressKey.h"
#include "tables/TableNames.h"
#include "tables/WriteRule.h"

namespace Tessel::Serve {

namespace {

// Bytes of a key that is kept: no address has more in any spelling.
constexpr std::size_t s_longestKey = 512;
// Bytes of a reply that is kept for each text that it is asked for with.
constexpr std::size_t s_shortReply = 1_KiB;

// Longest time for which an answer is kept that may change while the tables do not.
constexpr std::chrono::milliseconds s_longestMoment = 1s;

bool s_hasTable(Map map) {
  return map == Map::Alias || map == Map::MaskPublic || map == Map::MaskPrivate ||
         map == Map::SenderLogin;
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

// Number of the users that are left out; 0 when nobody is.
std::uint64_t s_usersNumber(const Tables& tables) {
  const bool isNeeded = tables.settings().leaveOutDisabled;
  const ConfigurationPointer users = isNeeded ? tables.configuration().image() : nullptr;
  return users == nullptr ? 0 : users->number();
}

// What replies come from: a map of a table, whose number counts from 1, or policies with the number
// 0. `None` means the expansions of aliases, which have keys instead of texts.
std::uint64_t s_sourceOf(std::uint64_t table, Map map) {
  return table * s_maps + static_cast<std::uint64_t>(map);
}

// Masks of masks that a mail server follows.
constexpr int s_mostMasks = 100;

Answer s_defer(const std::string& why) {
  return {Result::Temp, deferAction(why), Validity::Once};
}

// The texts, each once, joined by ",".
std::string s_joinedOnce(const std::vector<std::string>& texts) {
  std::string joined;
  std::set<std::string_view> seen;
  for (const std::string& text : texts) {
    if (seen.insert(text).second) joined.append(joined.empty() ? "" : ",").append(text);
  }
  return joined;
}

Answer s_permit() {
  return {Result::Ok, "DUNNO", Validity::Image};
}

// For a recipient that is no address: the mail server may make one of it, except for the one that
// each must have.
Answer s_noPolicy(std::string_view recipient) {
  if (stringCompareNoCase(std::string(recipient), "postmaster", 0)) return s_permit();
  return s_defer("the recipient is not a whole address");
}

// The logins that `address` has, which is joined to others by ",": itself, and its name alone where
// --login-domain is put to that. None for what a mail server would take for several.
std::vector<std::string> s_loginsOf(const std::string& address, const Settings& settings) {
  if (address.find_first_of(", \t") != std::string::npos) return {};
  std::vector<std::string> logins{address};
  std::string key;
  const bool isShort = !settings.loginDomain.empty() && Tool::addressKey(address, key) &&
                       s_domain(key) == Tool::comparisonDomain(settings.loginDomain);
  if (isShort) logins.emplace_back(s_local(address));
  return logins;
}

}  // namespace

AnswerCache::Source Lookup::Route::source() const {
  return {s_sourceOf(table->number(), map), generation + users + rules};
}

Lookup::Lookup(const Settings& settings, Tables& tables, Metrics& metrics, Log& log,
               std::optional<Helpers> helpers)
    : m_settings(settings),
      m_tables(tables),
      m_metrics(metrics),
      m_log(log),
      m_helpers(std::move(helpers)),
      m_cache(tables.answerMemory()),
      m_rules(tables),
      m_policies(tables, m_rules),
      m_areAskedNoted(!settings.countUse.empty()) {}

Lookup::~Lookup() = default;

const std::string* Lookup::reply(std::string_view request, Clock::time_point now) {
  m_since = now;
  if (!replyAt(request, now)) return nullptr;
  m_metrics.answered(m_map, m_result, Clock::now() - m_since);
  return &m_reply;
}

const std::string* Lookup::action(const PolicyRequest& request, Clock::time_point now) {
  m_since = now;
  if (!actionAt(request, now)) return nullptr;
  m_metrics.answered(m_map, m_result, Clock::now() - m_since);
  return &m_reply;
}

void Lookup::sweep(Clock::time_point now) {
  // Routes keep images alive, and tables that are gone.
  for (Routes& routes : m_routes) routes.clear();
  m_policies.sweep();
  m_rules.sweep();
  m_cache.sweep(now);
  m_tables.pages().sweep(now);
  if (!m_asked.empty()) m_tables.noteAsked(std::exchange(m_asked, {}));
}

void Lookup::give(const Answer& answer) {
  m_result = answer.result;
  m_reply = answer.reply();
}

// False when the reply is not known yet.
bool Lookup::replyAt(std::string_view request, Clock::time_point now) {
  const auto refuse = [this](const Answer& answer) {
    give(answer);
    return true;
  };
  m_map = Map::None;
  const std::size_t blank = request.find(' ');
  if (blank == std::string_view::npos) return refuse(Answer::perm("a request is MAP, blank, KEY"));
  Route* const route = routeOf(request.substr(0, blank), now);
  if (route == nullptr) {
    if (m_map == Map::None) return refuse(Answer::perm("there is no such map"));
    // Before the tables were listed nobody knows which there are.
    return refuse(Answer::temp(m_tables.names() ? "there is no such table"
                                                : "the table could not be read yet"));
  }
  const std::string_view key = request.substr(blank + 1);
  if (route->table != nullptr) {
    const std::string why = refresh(*route, now);
    if (!why.empty()) return refuse(Answer::temp(why));
    if (const AnswerCache::Entry* const known = m_cache.find(route->source(), key, now)) {
      m_metrics.cacheHit();
      m_result = known->result();
      m_reply.assign(known->reply());
      return true;
    }
  }
  const std::optional<Answer> found = answer(*route, key, now);
  if (!found) return false;
  give(*found);
  keepReply(*route, key, found->validity, now);
  return true;
}

// Keeps what was given for the text `text`.
void Lookup::keepReply(const Route& route, std::string_view text, Validity validity,
                       Clock::time_point now) {
  const bool isLasting = validity == Validity::Image;
  if (route.table == nullptr || (!isLasting && validity != Validity::Moment)) return;
  if (text.size() > s_longestKey || m_reply.size() > s_shortReply) return;
  m_cache.keep(route.source(), text, m_reply, m_result,
               isLasting ? Clock::time_point::max() : moment(now), now);
}

// Keeps the answer for the alias with `key`, to which extensions can be put.
void Lookup::keepExpansion(const AnswerCache::Source& source, const std::string& key,
                           const Answer& answer, Clock::time_point now) {
  if (answer.validity == Validity::Once) return;
  const bool isShort = answer.validity == Validity::Moment;
  m_cache.keep(source, key, answer.data, answer.result,
               isShort ? moment(now) : Clock::time_point::max(), now);
}

// The end of the time for which an answer is kept that may change while the table does not.
Clock::time_point Lookup::moment(Clock::time_point now) const {
  return now + std::min(m_settings.refresh, s_longestMoment);
}

Lookup::Route* Lookup::routeOf(std::string_view name, Clock::time_point now) {
  // To Postfix, what is before a ':' belongs to the path of the socket; it asks for "alias.NAME".
  const std::size_t separator = name.find_first_of(":.");
  m_map = mapOf(name.substr(0, separator));
  if (!s_hasTable(m_map) && separator != std::string_view::npos) m_map = Map::None;
  if (m_map == Map::None) return nullptr;
  const std::string_view table =
      separator == std::string_view::npos ? std::string_view() : name.substr(separator + 1);
  Routes& routes = m_routes[static_cast<std::size_t>(m_map)];
  const auto known = routes.find(table);
  if (known != routes.end()) return &known->second;
  Route route;
  route.map = m_map;
  if (s_hasTable(m_map)) {
    const bool isMask = m_map == Map::MaskPublic || m_map == Map::MaskPrivate;
    const TableKind kind = isMask ? TableKind::Mask : TableKind::Alias;
    const std::string sqlName = sqlNameOf(kind, std::string(table));
    route.table = m_tables.find(sqlName);
    if (route.table == nullptr) {
      m_tables.noteUnknown(sqlName, now);
      return nullptr;
    }
  }
  return &routes.emplace(table, std::move(route)).first->second;
}

std::string Lookup::refresh(Route& route, Clock::time_point now) {
  const std::string_view why = route.table->whyUnable(now, m_settings);
  if (!why.empty()) return std::string(why);
  if (route.table->age(now) > s_outage) m_metrics.staleAnswer();
  const std::uint64_t generation = route.table->generation();
  if (generation != route.generation) {
    route.image = route.table->image();
    route.generation = generation;
  }
  if (route.map == Map::Alias || route.map == Map::SenderLogin) {
    std::string unknown = m_rules.refresh(now);
    if (!unknown.empty()) return unknown;
    route.rules = m_rules.number();
  }
  const bool mayLeaveOut = route.map == Map::Alias || route.map == Map::MaskPrivate;
  const bool needsUsers =
      route.map == Map::SenderLogin || (m_settings.leaveOutDisabled && mayLeaveOut);
  if (!needsUsers) return "";
  const ConfigurationPointer users = configuration(now);
  if (users == nullptr) return s_noConfiguration;
  route.users = users->number();
  return "";
}

std::optional<Answer> Lookup::answer(const Route& route, std::string_view key,
                                     Clock::time_point now) {
  try {
    switch (route.map) {
      case Map::Alias:
        return aliasAnswer(route, key, now);
      case Map::MaskPublic:
        return maskAnswer(route, key);
      case Map::MaskPrivate:
        return maskAnswerWithoutDisabled(route, key, now);
      case Map::Mailbox:
        return mailboxAnswer(key, now);
      case Map::Domain:
        return domainAnswer(key, now);
      case Map::SenderLogin:
        return senderLogins(route, key, now);
      case Map::None:
      case Map::Policy:
        break;
    }
    return Answer::perm("there is no such map");
  } catch (const std::exception&) {
    return failureAnswer(m_log);
  }
}

std::optional<Answer> Lookup::aliasAnswer(const Route& route, std::string_view text,
                                          Clock::time_point now) {
  std::string key;
  if (!Tool::addressKey(text, key)) return Answer::noAddress();
  if (Pages::isPage(key)) return page(route, key, now);
  std::optional<Answer> answer = expansion(route, key, now);
  if (!answer || answer->result != Result::NotFound) return answer;
  const std::string asked = key;
  const Tool::ExtendedAddress cutAddress = cut(text);
  if (cutAddress.extension.empty() || !Tool::addressKey(cutAddress.base, key)) {
    return caughtAnswer(route, asked, "", now);
  }
  answer = Pages::isPage(key) ? page(route, key, now) : expansion(route, key, now);
  if (!answer) return answer;
  if (answer->result == Result::NotFound) return caughtAnswer(route, asked, key, now);
  Answer tagged = extended(std::move(*answer), kept(cutAddress));
  // Each mail may have another extension. What it is made from is kept.
  tagged.validity = Validity::Once;
  return tagged;
}

// The answer for `key`, without its extension `base`, which is no alias: that of the catch-all of
// its domain, unless somebody has the address.
std::optional<Answer> Lookup::caughtAnswer(const Route& route, const std::string& key,
                                           const std::string& base, Clock::time_point now) {
  const std::string catchAll = std::string("*@").append(s_domain(key));
  if (!m_settings.catchAll || !route.image->alias().isAlias(catchAll)) return Answer::notFound();
  const ConfigurationPointer users = configuration(now);
  if (users == nullptr) return Answer::temp(s_noConfiguration);
  Answer answer = Answer::notFound();
  for (const std::string* const one : {&key, &base}) {
    const std::optional<bool> isMasked = hasMask(*one, now);
    if (!isMasked) answer = Answer::temp("a mask table cannot be read, and may have the address");
    if (!isMasked || *isMasked || users->hasUser(*one) || users->isDisabled(*one)) {
      answer.validity = Validity::Once;
      return answer;
    }
  }
  std::optional<Answer> caught = expansion(route, catchAll, now);
  // Users and masks change while aliases do not.
  if (caught) caught->validity = Validity::Once;
  return caught;
}

// True when a mask has the public address with `key`; nothing when nobody knows.
std::optional<bool> Lookup::hasMask(const std::string& key, Clock::time_point now) const {
  if (key.empty()) return false;
  for (const TablePointer& table : m_tables.all()) {
    if (table->kind() != TableKind::Mask) continue;
    if (!table->whyUnable(now, m_settings).empty()) return std::nullopt;
    const ImagePointer image = table->image();
    constexpr auto s_toPrivate = MaskImage::Direction::ToPrivate;
    const MaskImage& masks = image->mask();
    if (masks.find(s_toPrivate, key) || masks.findDomain(s_toPrivate, s_domain(key))) return true;
  }
  return false;
}

// What the alias with `key` is answered with, which is noted. A reply from the cache is not noted
// again: it was made here, from an image that has the alias.
std::optional<Answer> Lookup::expansion(const Route& route, const std::string& key,
                                        Clock::time_point now) {
  std::optional<Answer> answer = expand(route, key, now);
  if (m_areAskedNoted && answer && answer->result != Result::NotFound) {
    m_asked.insert(route.table->sqlName() + " " + key);
  }
  return answer;
}

std::optional<Answer> Lookup::expand(const Route& route, const std::string& key,
                                     Clock::time_point now) {
  const Job job{route.table->number(), key};
  if (const Answer* const made = madeOf(job)) return *made;
  const AnswerCache::Source source{s_sourceOf(job.table, Map::None), route.source().image};
  const AnswerCache::Entry* const known = m_cache.find(source, key, now);
  if (known != nullptr && m_tables.pages().isWhole(known->reply(), now)) {
    m_metrics.cacheHit();
    return Answer{known->result(), std::string(known->reply()), Validity::Moment};
  }
  const Effort effort = m_helpers ? Effort::Short : Effort::Any;
  std::optional<Answer> answer = Serve::aliasAnswer(m_tables, *route.table, *route.image,
                                                    m_rules.rules(), key, effort, now, m_log);
  if (!answer) {
    begin(route, key, now);
  } else if (answer->data.size() > s_shortReply || answer->validity == Validity::Pages) {
    keepExpansion(source, key, *answer, now);
  }
  return answer;
}

// Has the helpers expand the alias with `key`.
void Lookup::begin(const Route& route, const std::string& key, Clock::time_point now) {
  post({route.table->number(), key}, now,
       [key, table = route.table, rules = m_rules.rules(), number = m_rules.number(),
        &tables = m_tables, &log = m_log] {
         // The newest image: a job that waits must not keep an old one alive.
         const std::uint64_t generation = table->generation() + s_usersNumber(tables) + number;
         const ImagePointer image = table->image();
         const AnswerCache::Source source{s_sourceOf(table->number(), Map::None), generation};
         try {
           return std::pair(*Serve::aliasAnswer(tables, *table, *image, rules, key, Effort::Any,
                                                Clock::now(), log),
                            source);
         } catch (const std::exception&) {
           return std::pair(failureAnswer(log), source);
         }
       });
}

// Has the helpers make the answer of `job`, unless they do already. `make` must not throw.
void Lookup::post(const Job& job, Clock::time_point now,
                  std::function<std::pair<Answer, AnswerCache::Source>()> make) {
  if (!m_jobs.emplace(job, now).second) return;
  m_helpers->threads.post(
      [this, job, make = std::move(make), onOwnThread = m_helpers->onOwnThread]() mutable {
        // Images that it holds end here, not on the thread that answers.
        const auto [answer, source] = std::exchange(make, nullptr)();
        onOwnThread([this, job, source = source, answer = answer] { made(job, source, answer); });
        releaseFreeMemory();
      });
}

// What the helpers have just made for `job`; null when they have not.
const Answer* Lookup::madeOf(const Job& job) {
  const auto made = m_made.find(job);
  if (made == m_made.end()) return nullptr;
  m_since = made->second.since;
  return &made->second.answer;
}

// The helpers have made the answer of `job` from `source`.
void Lookup::made(const Job& job, const AnswerCache::Source& source, const Answer& answer) {
  const Clock::time_point since = m_jobs.at(job);
  m_jobs.erase(job);
  keepExpansion(source, job.key, answer, Clock::now());
  m_made.emplace(job, Made{answer, since});
  m_helpers->isKnown();
  m_made.clear();
}

Answer Lookup::page(const Route& route, const std::string& key, Clock::time_point now) {
  Answer answer;
  if (auto found = m_tables.pages().find(key, now)) {
    // A mail server that asks several maps asks each map for the pages of all of them.
    const bool isOwn = found->table == route.table->number();
    answer = isOwn ? Answer::ok(std::move(found->addresses)) : Answer::notFound();
  } else {
    // Not "not found": the mail would be rejected for good. It is tried again, with the alias.
    answer = Answer::temp("this part of a list is gone; ask for the list again");
  }
  answer.validity = Validity::Once;
  return answer;
}

// The private address that a whole-domain mask gives for `text`, if somebody has it; other masks
// say who has it.
Answer Lookup::knownAnswer(const Route& route, std::string_view text, Answer answer,
                           Clock::time_point now) {
  std::string key;
  const MaskImage& image = route.image->mask();
  for (const std::string& asked : {std::string(text), cut(text).base}) {
    const bool hasKey = Tool::addressKey(asked, key);
    if (hasKey && image.find(MaskImage::Direction::ToPrivate, key)) return answer;
  }
  const ConfigurationPointer users = configuration(now);
  if (users == nullptr) return Answer::temp(s_noConfiguration);
  const std::string base = baseKey(answer.data, m_settings);
  const bool isUser = Tool::addressKey(answer.data, key) &&
                      (users->hasUser(key) || (!base.empty() && users->hasUser(base)));
  if (!isUser) {
    std::string unknown = m_rules.refresh(now);
    for (const TablePointer& table : m_tables.all()) {
      if (table->kind() == TableKind::Alias) unknown += table->whyUnable(now, m_settings);
    }
    if (!unknown.empty()) return Answer::temp(unknown);
    const bool isAlias = goesElsewhere(m_tables, answer.data, nullptr, m_rules.rules());
    if (!isAlias) answer = Answer::notFound();
  }
  // Users and aliases change while masks do not.
  answer.validity = Validity::Once;
  return answer;
}

Answer Lookup::maskAnswer(const Route& route, std::string_view text) const {
  const MaskImage& image = route.image->mask();
  const auto direction = route.map == Map::MaskPublic ? MaskImage::Direction::ToPublic
                                                      : MaskImage::Direction::ToPrivate;
  const char* const broken = "the row of this address cannot be read";
  std::string key;
  if (!Tool::addressKey(text, key)) return Answer::noAddress();
  if (auto found = image.find(direction, key)) {
    if (!Tool::hasCommaInLiteral(*found)) return Answer::ok(std::move(*found));
    return Answer::temp("an address literal in this row has a comma");
  }
  if (image.isBroken(direction, key)) return Answer::temp(broken);
  // Before the wildcard rows: an address with a mask of its own must not be shown without it.
  const Tool::ExtendedAddress address = cut(text);
  std::string base;
  if (!address.extension.empty() && Tool::addressKey(address.base, base)) {
    if (const auto found = image.find(direction, base)) {
      Answer answer = Answer::ok(Tool::withExtension(*found, kept(address), m_settings.delimiter));
      answer.validity = Validity::Once;
      return answer;
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

// The private address, unless it is that of a disabled user: then the public one is no address.
Answer Lookup::maskAnswerWithoutDisabled(const Route& route, std::string_view text,
                                         Clock::time_point now) {
  Answer answer = maskAnswer(route, text);
  if (m_settings.knownMaskUsers && answer.result == Result::Ok) {
    answer = knownAnswer(route, text, std::move(answer), now);
  }
  if (!m_settings.leaveOutDisabled || answer.result != Result::Ok) return answer;
  const ConfigurationPointer users = configuration(now);
  if (users == nullptr) return Answer::temp(s_noConfiguration);
  if (!isDisabledUser(*users, answer.data, m_settings)) return answer;
  const std::string unknown = m_rules.refresh(now);
  if (!unknown.empty()) return Answer::temp(unknown);
  if (!goesElsewhere(m_tables, answer.data, nullptr, m_rules.rules())) answer = Answer::notFound();
  // Aliases change while masks and users do not.
  answer.validity = Validity::Once;
  return answer;
}

// The address that the mail server makes of the recipient before it asks for aliases: it asks for
// masks until there are no more. Empty when nobody knows.
std::string Lookup::privateAddress(const PolicyTables::Context& context,
                                   std::string_view recipient) const {
  std::string address(recipient);
  for (int i = 0; i < s_mostMasks; ++i) {
    Answer answer = Answer::notFound();
    for (const PolicyData::Source& masks : context.masks) {
      answer = maskAnswer({Map::MaskPrivate, masks.table, masks.image, masks.generation}, address);
      if (answer.result != Result::NotFound) break;
    }
    if (answer.result == Result::NotFound || answer.data == address) return address;
    if (answer.result != Result::Ok) return "";
    address = std::move(answer.data);
  }
  return "";
}

// Who may send as the address: a mailbox as itself, an alias as its owners.
Answer Lookup::senderLogins(const Route& route, std::string_view text, Clock::time_point now) {
  const ConfigurationPointer users = configuration(now);
  if (users == nullptr) return Answer::temp(s_noConfiguration);
  const AliasImage& aliases = route.image->alias();
  const Rules& rules = m_rules.rules();
  const std::string& sqlName = route.table->sqlName();
  const Tool::ExtendedAddress address = cut(text);
  std::string key;
  for (const std::string_view asked : {text, std::string_view(address.base)}) {
    if (!Tool::addressKey(asked, key)) return Answer::noAddress();
    const auto presence = rules.presence(sqlName, key);
    const bool isAlias = aliases.isAlias(key) && presence != RuleImage::Presence::Expired;
    std::vector<std::string> logins;
    if (users->hasUser(key)) logins = s_loginsOf(key, m_settings);
    if (isAlias && rules.image != nullptr) {
      const auto rule = rules.image->rule(sqlName, key);
      if (!rule) return Answer::temp("the rule of this alias cannot be read");
      for (const EmailAddress& owner : rule->owners) {
        for (std::string& login : s_loginsOf(owner.address(), m_settings)) {
          logins.push_back(std::move(login));
        }
      }
    }
    if (!logins.empty()) {
      Answer answer = Answer::ok(s_joinedOnce(logins));
      if (answer.data.size() <= m_tables.pages().maxSize()) return answer;
      return Answer::temp("the logins of this address are too many for a reply");
    }
    if (isAlias || address.extension.empty()) break;
  }
  return Answer::notFound();
}

// False when the action is not known yet.
bool Lookup::actionAt(const PolicyRequest& request, Clock::time_point now) {
  m_map = Map::Policy;
  const auto give = [this](const Answer& answer) {
    m_result = answer.result;
    m_reply = answer.data;
    return true;
  };
  if (request.request != "smtpd_access_policy") {
    return give(s_defer("this is not a request for an access policy"));
  }
  if (request.recipient.empty()) {
    // Each recipient was asked for before, unless the mail server asks at another place only.
    m_log.warning(
        "the policy was asked for without a recipient: ask for it in"
        " smtpd_recipient_restrictions");
    return give(s_permit());
  }
  const PolicyTables::Context& context = m_policies.refresh(request.context, now);
  if (!context.why.empty()) return give(s_defer(context.why));
  if (context.data.sources.front().table->age(now) > s_outage) m_metrics.staleAnswer();
  try {
    const std::optional<Answer> answer = policy(context, request, now);
    return answer && give(*answer);
  } catch (const std::exception&) {
    return give(s_defer(failureAnswer(m_log).data));
  }
}

// The catch-all that has the mail for `key`, or `key` itself; empty when nobody knows.
std::string Lookup::caughtKey(const PolicyTables::Context& context, const std::string& key) const {
  const std::string catchAll = std::string("*@").append(s_domain(key));
  const std::string base = baseKey(key, m_settings);
  bool isCaught = false;
  for (const PolicyData::Source& source : context.data.sources) {
    const AliasImage& aliases = source.image->alias();
    if (aliases.isAlias(key) || (!base.empty() && aliases.isAlias(base))) return key;
    isCaught = isCaught || aliases.isAlias(catchAll);
  }
  if (!isCaught) return key;
  const ConfigurationPointer& users = context.data.users;
  if (users == nullptr) return "";
  const auto isUser = [&users](const std::string& one) {
    return users->hasUser(one) || users->isDisabled(one);
  };
  return isUser(key) || isUser(base) ? key : catchAll;
}

// What `request` is answered. Nothing when that takes longer.
std::optional<Answer> Lookup::policy(const PolicyTables::Context& context,
                                     const PolicyRequest& request, Clock::time_point now) {
  const Writer writer = writerOf(request, m_settings);
  // Nobody's address has a line break.
  std::string asked(request.recipient);
  asked.append(writer.isTrusted ? "\n+" : "\n-").append(request.login);
  asked.append("\n").append(request.context);
  const AnswerCache::Source source{s_sourceOf(0, Map::Policy), context.number};
  const Job job{source.table, asked};
  if (const Answer* const made = madeOf(job)) return *made;
  if (const AnswerCache::Entry* const known = m_cache.find(source, asked, now)) {
    m_metrics.cacheHit();
    return Answer{known->result(), std::string(known->reply()), Validity::Image};
  }
  std::string key;
  if (!Tool::addressKey(request.recipient, key)) return s_noPolicy(request.recipient);
  std::string address = privateAddress(context, key);
  if (address.empty()) return s_defer("the mask of this address is not known");
  if (m_settings.catchAll) address = caughtKey(context, address);
  if (address.empty()) return s_defer("whether somebody has this address is not known");
  if (!Tool::addressKey(address, key)) return s_permit();
  const auto judge = [recipient = std::string(request.recipient), key, writer, data = context.data,
                      &settings = m_settings, &tables = m_tables](Effort effort) {
    return policyAnswer(data, settings, tables.configuration(), writer, recipient, key, effort);
  };
  std::optional<Answer> answer = judge(m_helpers ? Effort::Short : Effort::Any);
  if (!answer) {
    post(job, now, [judge, source, &log = m_log] {
      try {
        return std::pair(*judge(Effort::Any), source);
      } catch (const std::exception&) {
        return std::pair(s_defer(failureAnswer(log).data), source);
      }
    });
  } else if (asked.size() <= s_longestKey) {
    keepExpansion(source, asked, *answer, now);
  }
  return answer;
}

Answer Lookup::mailboxAnswer(std::string_view text, Clock::time_point now) {
  std::string key;
  if (!Tool::addressKey(text, key)) return Answer::noAddress();
  const ConfigurationPointer configuration = this->configuration(now);
  if (configuration == nullptr) return Answer::temp(s_noConfiguration);
  if (configuration->hasUser(key)) return Answer::ok(key);
  const Tool::ExtendedAddress address = cut(text);
  if (address.extension.empty() || !Tool::addressKey(address.base, key)) return Answer::notFound();
  return configuration->hasUser(key) ? Answer::ok(key) : Answer::notFound();
}

Answer Lookup::domainAnswer(std::string_view text, Clock::time_point now) {
  std::string key;
  if (!Tool::domainKey(text, key)) return Answer::notFound();
  const ConfigurationPointer configuration = this->configuration(now);
  if (configuration == nullptr) return Answer::temp(s_noConfiguration);
  return configuration->hasDomain(key) ? Answer::ok(key) : Answer::notFound();
}

// The domains and mail users; null when they are not known well enough.
ConfigurationPointer Lookup::configuration(Clock::time_point now) {
  Configuration& configuration = m_tables.configuration();
  ConfigurationPointer image = configuration.use(m_settings, now);
  if (image != nullptr && configuration.age(now) > s_outage) m_metrics.staleAnswer();
  return image;
}

Tool::ExtendedAddress Lookup::cut(std::string_view text) const {
  if (m_settings.extension == ExtensionRule::Off) return {std::string(text), ""};
  return Tool::cutExtension(text, m_settings.delimiter);
}

std::string_view Lookup::kept(const Tool::ExtendedAddress& address) const {
  if (m_settings.extension == ExtensionRule::Keep) return address.extension;
  return {};
}

Answer Lookup::extended(Answer answer, std::string_view extension) const {
  if (answer.result != Result::Ok || extension.empty()) return answer;
  std::string all = Tool::allWithExtension(answer.data, extension, m_settings.delimiter);
  if (all.size() <= m_tables.pages().maxSize()) answer.data = std::move(all);
  return answer;
}

}  // namespace Tessel::Serve
