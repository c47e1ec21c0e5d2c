// The configuration in memory, and the text that carries it between processes.
#include "serve/image/ConfigurationImage.h"

#include <atomic>
#include <stdexcept>
#include <utility>

#include "base/stringCompareNoCase.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/StateMark.h"
#include "cmf/TableQuery.h"
#include "cmf/cmf_query.h"
#include "serve/image/Table.h"
#include "tables/AddressKey.h"

namespace Tessel::Serve {

namespace {

using Tool::AddressIndex;
using Users = CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable>;

constexpr char s_domain = 'd';
constexpr char s_mailbox = 'm';
constexpr char s_other = 'o';
constexpr char s_disabled = 'x';

// Users after which the reader reports that it is alive.
constexpr std::size_t s_usersPerReport = 10000;

// Has the calling thread read one state while in scope.
class OneState {
 public:
  OneState() {
    if (cmf_shm_read_lock() != 0) throw std::runtime_error(cmf_query_error());
  }
  ~OneState() { cmf_shm_read_unlock(); }
  OneState(const OneState&) = delete;
  OneState& operator=(const OneState&) = delete;
};

char s_kindOf(const __aps_mail_user& user) {
  if (user.kind == CMF::MailUserDisabled) return s_disabled;
  return user.kind == CMF::MailUserMailbox ? s_mailbox : s_other;
}

void s_append(std::string& copy, char kind, std::string_view name) {
  copy.append(1, kind).append(name).append(1, '\0');
}

// The local part of `address`, which ends in "@" and `domain`.
std::string_view s_name(std::string_view address, std::string_view domain) {
  return address.substr(0, address.size() - domain.size() - 1);
}

std::uint64_t s_nextNumber() {
  static std::atomic<std::uint64_t> s_last{};
  return ++s_last;
}

[[noreturn]] void s_failMalformed() {
  throw std::runtime_error("the copy of the configuration is malformed");
}

}  // namespace

std::string copyConfiguration(const std::function<void()>& isAlive) {
  const OneState state;
  // In a damaged file the next user may be one that was there before, without end.
  const auto size = static_cast<std::size_t>(CMF::stateMark().data[0]);
  const std::size_t most = size / sizeof(__aps_mail_user);
  std::size_t count = 0;
  std::string copy;
  for (const CMF::ApsGwServerRecord& server :
       CMF::RefApsGwServerCache::instance(false)->domains()) {
    s_append(copy, s_domain, server.domain);
    for (const __aps_mail_user& user : Users(server.domainId)) {
      if (++count > most) throw std::runtime_error("it lists more mail users than it can hold");
      s_append(copy, s_kindOf(user), user.user_name);
      if (isAlive && count % s_usersPerReport == 0) isAlive();
    }
  }
  return copy;
}

// Puts the domains and users of a copy into the image.
class ConfigurationImage::Reader {
 public:
  // `image` must outlive the reader.
  explicit Reader(ConfigurationImage& image) : m_image(image) {}

  void read(std::string_view copy) {
    std::vector<Entry>* users = nullptr;
    while (!copy.empty()) {
      const std::size_t end = copy.find('\0');
      if (end == std::string_view::npos || end < 2) s_failMalformed();
      const Entry entry{copy.front(), copy.substr(1, end - 1)};
      copy.remove_prefix(end + 1);
      if (entry.kind == s_domain) {
        users = usersOf(entry.name);
        continue;
      }
      const bool isUser =
          entry.kind == s_mailbox || entry.kind == s_other || entry.kind == s_disabled;
      if (!isUser || users == nullptr) s_failMalformed();
      users->push_back(entry);
    }
    for (AddressIndex::Id domain = 0; domain < m_users.size(); ++domain) {
      m_image.m_firstUsers.push_back(m_image.m_users.size());
      for (const Entry& user : m_users[domain]) add(user, m_image.m_domains.text(domain));
    }
  }

 private:
  struct Entry {
    char kind;
    std::string_view name;
  };

  // Where the users of the domain `name` are collected: those of all its spellings.
  std::vector<Entry>* usersOf(std::string_view name) {
    if (!Tool::domainKey(name, m_key)) return &m_unknown;
    const AddressIndex::Added domain = m_image.m_domains.add(m_key);
    if (domain.isNew) m_users.emplace_back();
    return &m_users[domain.id];
  }

  void add(const Entry& user, std::string_view domain) {
    m_address.assign(user.name).append("@").append(domain);
    if (!Tool::addressKey(m_address, m_key)) return;
    // Most keys differ from their addresses in ASCII letter case at most, which is no difference to
    // the index. It keeps the spelling of the name then.
    const bool isPlain = stringCompareNoCase(m_address, m_key, 0);
    const AddressIndex::Added added = m_image.m_users.add(isPlain ? m_address : m_key);
    if (added.isNew) {
      m_image.m_kinds.push_back(user.kind);
    } else if (m_image.m_kinds[added.id] == s_disabled) {
      m_image.m_kinds[added.id] = user.kind;
    }
    if (!isPlain) m_image.m_names.emplace(added.id, user.name);
  }

  ConfigurationImage& m_image;
  std::vector<std::vector<Entry>> m_users;  // By the number of the domain.
  std::vector<Entry> m_unknown;             // Of domains that nobody can ask for.
  std::string m_address;
  std::string m_key;
};

ConfigurationImage::ConfigurationImage(std::string_view copy) : m_number(s_nextNumber()) {
  Reader(*this).read(copy);
  m_hasDisabled = m_kinds.find(s_disabled) != std::string::npos;
}

bool ConfigurationImage::hasUser(std::string_view key) const {
  const Id user = m_users.find(key);
  return user != AddressIndex::s_none && m_kinds[user] != s_disabled;
}

bool ConfigurationImage::hasMailbox(std::string_view key) const {
  const Id user = m_users.find(key);
  return user != AddressIndex::s_none && m_kinds[user] == s_mailbox;
}

bool ConfigurationImage::isDisabled(std::string_view key) const {
  const Id user = m_users.find(key);
  return user != AddressIndex::s_none && m_kinds[user] == s_disabled;
}

bool ConfigurationImage::hasDomain(std::string_view key) const {
  return m_domains.find(key) != AddressIndex::s_none;
}

bool ConfigurationImage::listUsers(std::string_view domain, const TakeUser& take) const {
  std::string key;
  const Id number = Tool::domainKey(domain, key) ? m_domains.find(key) : AddressIndex::s_none;
  if (number == AddressIndex::s_none) return false;
  const bool isLast = number + 1 == m_domains.size();
  const Id end = isLast ? m_users.size() : m_firstUsers[number + 1];
  for (Id user = m_firstUsers[number]; user < end; ++user) {
    if (m_kinds[user] != s_mailbox) continue;
    const auto name = m_names.find(user);
    take(name != m_names.end() ? name->second : s_name(m_users.text(user), key));
  }
  return true;
}

ConfigurationPointer Configuration::use(const Settings& settings, Clock::time_point now) {
  return m_state.with([&](State& state) -> ConfigurationPointer {
    state.isNeeded = true;
    if (state.image == nullptr || isTooOld(now - state.confirmed, settings)) return nullptr;
    return state.image;
  });
}

ConfigurationPointer Configuration::image() const {
  return m_state.with([](const State& state) { return state.image; });
}

void Configuration::publish(ConfigurationPointer image, Clock::time_point time) {
  m_state.with([&](State& state) {
    state.image.swap(image);
    state.confirmed = time;
    state.isNeeded = true;
  });
  // The old image is destroyed here, without the lock: a large one takes time.
}

void Configuration::confirm(Clock::time_point time) {
  m_state.with([time](State& state) { state.confirmed = time; });
}

std::optional<Clock::duration> Configuration::age(Clock::time_point now) const {
  return m_state.with([now](const State& state) -> std::optional<Clock::duration> {
    if (state.image == nullptr) return std::nullopt;
    return now - state.confirmed;
  });
}

bool Configuration::isNeeded() const {
  return m_state.with([](const State& state) { return state.isNeeded; });
}

void Configuration::setNeeded() {
  m_state.with([](State& state) { state.isNeeded = true; });
}

}  // namespace Tessel::Serve
