// The domains and mail users of the configuration.
#include "tables/MailUsers.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/TableQuery.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/Configuration.h"

namespace Tessel::Tool {

std::vector<StoredUser> MailUsers::Domain::at(SpellingIndex::Id user) const {
  const std::string_view address = users.text(user);
  const std::size_t at = address.rfind('@');
  std::vector<StoredUser> found{
      {std::string(address.substr(at + 1)), std::string(address.substr(0, at)), kinds[user]}};
  const auto [first, end] = others.equal_range(user);
  std::transform(first, end, std::back_inserter(found),
                 [](const auto& other) { return other.second; });
  return found;
}

// It is a mailbox if any of its spellings is, and disabled if all are.
MailUsers::Kind MailUsers::Domain::kindOf(SpellingIndex::Id user) const {
  const auto range = others.equal_range(user);
  const auto any = [&](std::int32_t kind) {
    return kinds[user] == kind || std::any_of(range.first, range.second, [kind](const auto& one) {
             return one.second.kind == kind;
           });
  };
  const auto all = [&](std::int32_t kind) {
    return kinds[user] == kind && std::all_of(range.first, range.second, [kind](const auto& one) {
             return one.second.kind == kind;
           });
  };
  if (any(CMF::MailUserMailbox)) return Kind::Mailbox;
  return all(CMF::MailUserDisabled) ? Kind::Disabled : Kind::Other;
}

MailUsers::MailUsers() {
  try {
    const auto domains =
        withConfiguration([] { return CMF::RefApsGwServerCache::instance(false)->domains(); });
    for (const CMF::ApsGwServerRecord& record : domains) {
      m_stored.emplace(comparisonDomain(record.domain),
                       StoredDomain{record.domain, record.domainId});
    }
  } catch (const NoConfiguration& failure) {
    m_failure = failure;
    m_isAbsent = true;
  } catch (const Failure& failure) {
    m_failure = failure;
  }
}

void MailUsers::require() const {
  if (m_failure) throw *m_failure;
}

MailUsers::Kind MailUsers::kindOf(std::string_view address) {
  const Domain& known = domain(domainOf(address));
  if (m_failure) return Kind::Unknown;
  if (!known.isServed) return Kind::Foreign;
  const SpellingIndex::Id user = known.users.find(address);
  return user == SpellingIndex::s_none ? Kind::Nobody : known.kindOf(user);
}

std::optional<std::size_t> MailUsers::mailboxes(std::string_view name) {
  const Domain& known = domain(name);
  if (m_failure || !known.isServed) return std::nullopt;
  return known.mailboxes;
}

std::vector<std::string> MailUsers::mailboxesOf(std::string_view name) {
  std::vector<std::string> addresses;
  const Domain& known = domain(name);
  for (SpellingIndex::Id user = 0; user < known.users.size(); ++user) {
    if (known.kindOf(user) != Kind::Mailbox) continue;
    addresses.push_back(known.at(user).front().name.append("@").append(name));
  }
  return addresses;
}

std::vector<StoredDomain> MailUsers::spellingsOf(std::string_view domain) const {
  std::vector<StoredDomain> spellings;
  const auto [first, end] = m_stored.equal_range(comparisonDomain(domain));
  std::transform(first, end, std::back_inserter(spellings),
                 [](const Domains::value_type& stored) { return stored.second; });
  return spellings;
}

std::vector<StoredUser> MailUsers::find(std::string_view address) {
  const Domain& known = domain(domainOf(address));
  const SpellingIndex::Id user = known.users.find(address);
  return user == SpellingIndex::s_none ? std::vector<StoredUser>() : known.at(user);
}

std::vector<std::vector<StoredUser>> MailUsers::usersOf(std::string_view name) {
  const Domain& known = domain(name);
  std::vector<std::vector<StoredUser>> users;
  users.reserve(known.users.size());
  for (SpellingIndex::Id user = 0; user < known.users.size(); ++user)
    users.push_back(known.at(user));
  return users;
}

MailUsers::Domain& MailUsers::domain(std::string_view name) {
  if (m_last != nullptr && name == m_lastName) return *m_last;
  const std::string key = comparisonDomain(name);
  const auto [known, isNew] = m_domains.try_emplace(key);
  if (isNew && !m_failure) {
    try {
      read(key, known->second);
    } catch (const Failure& failure) {
      m_failure = failure;
    }
  }
  m_lastName = name;
  m_last = &known->second;
  return *m_last;
}

void MailUsers::read(const std::string& key, Domain& domain) {
  const auto [first, end] = m_stored.equal_range(key);
  for (auto stored = first; stored != end; ++stored) {
    domain.isServed = true;
    withConfiguration([&] {
      const CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable> users(stored->second.id);
      for (const __aps_mail_user& user : users) {
        StoredUser read{stored->second.name, user.user_name, user.kind};
        const AddressIndex::Added added = domain.users.add(read.address());
        if (added.isNew) {
          domain.kinds.push_back(read.kind);
        } else {
          domain.others.emplace(added.id, std::move(read));
        }
      }
    });
  }
  for (SpellingIndex::Id user = 0; user < domain.users.size(); ++user) {
    if (domain.kindOf(user) == Kind::Mailbox) ++domain.mailboxes;
  }
}

}  // namespace Tessel::Tool
