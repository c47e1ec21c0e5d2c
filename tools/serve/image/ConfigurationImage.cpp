// The configuration in memory, and the text that carries it between processes.
#include "serve/image/ConfigurationImage.h"

#include <stdexcept>
#include <utility>

#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/StateMark.h"
#include "cmf/TableQuery.h"
#include "cmf/cmf_query.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

namespace {

using Tool::AddressIndex;
using Users = CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable>;

constexpr char s_domain = 'd';
constexpr char s_mailbox = 'm';
constexpr char s_other = 'o';
constexpr char s_disabled = 'x';

// Users after which the reader reports that it is alive.
constexpr std::size_t s_step = 10000;

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

// The local part of `address`.
std::string_view s_name(std::string_view address, std::string_view domain) {
  return address.substr(0, address.size() - domain.size() - 1);
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
      if (isAlive && count % s_step == 0) isAlive();
    }
  }
  return copy;
}

ConfigurationImage::ConfigurationImage(std::string_view copy) {
  std::string_view domain;
  std::string address;
  while (!copy.empty()) {
    const std::size_t end = copy.find('\0');
    if (end == std::string_view::npos || end < 2) s_failMalformed();
    const char kind = copy.front();
    const std::string_view name = copy.substr(1, end - 1);
    copy.remove_prefix(end + 1);
    if (kind == s_domain) {
      if (!m_domains.add(name).isNew) s_failMalformed();
      m_firstUsers.push_back(m_users.size());
      domain = name;
      continue;
    }
    const bool isUser = kind == s_mailbox || kind == s_other || kind == s_disabled;
    if (!isUser || domain.empty()) s_failMalformed();
    address.assign(name).append("@").append(domain);
    if (!m_users.add(address).isNew) s_failMalformed();
    m_kinds.push_back(kind);
  }
}

bool ConfigurationImage::hasUser(std::string_view address) const {
  const Id user = m_users.find(address);
  return user != AddressIndex::s_none && m_kinds[user] != s_disabled;
}

bool ConfigurationImage::hasDomain(std::string_view domain) const {
  return m_domains.find(domain) != AddressIndex::s_none;
}

bool ConfigurationImage::listUsers(std::string_view domain, const TakeUser& take) const {
  const Id number = m_domains.find(domain);
  if (number == AddressIndex::s_none) return false;
  const bool isLast = number + 1 == m_domains.size();
  const Id end = isLast ? m_users.size() : m_firstUsers[number + 1];
  for (Id user = m_firstUsers[number]; user < end; ++user) {
    if (m_kinds[user] == s_mailbox) take(s_name(m_users.text(user), domain));
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
