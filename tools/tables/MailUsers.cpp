// The mail users of the configuration.
#include "tables/MailUsers.h"

#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/TableQuery.h"
#include "tables/AliasGraph.h"
#include "tables/Configuration.h"

namespace Tessel::Tool {

namespace {

std::string s_lowered(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

}  // namespace

MailUsers::MailUsers() {
  try {
    withConfiguration([] { return CMF::RefApsGwServerCache::instance(false); });
  } catch (const Failure& failure) {
    m_failure = failure;
  }
}

MailUsers::Kind MailUsers::kindOf(std::string_view address) {
  const Domain& known = domain(domainOf(address));
  if (m_failure) return Kind::Unknown;
  if (!known.isServed) return Kind::Foreign;
  const AddressIndex::Id user = known.users.find(address);
  if (user == AddressIndex::s_none) return Kind::Nobody;
  return known.areMailbox[user] ? Kind::Mailbox : Kind::Other;
}

std::optional<std::size_t> MailUsers::mailboxes(std::string_view name) {
  const Domain& known = domain(name);
  if (m_failure || !known.isServed) return std::nullopt;
  return known.mailboxes;
}

std::vector<std::string> MailUsers::mailboxesOf(std::string_view name) {
  std::vector<std::string> addresses;
  const Domain& known = domain(name);
  for (AddressIndex::Id user = 0; user < known.users.size(); ++user) {
    if (known.areMailbox[user]) addresses.emplace_back(known.users.text(user));
  }
  return addresses;
}

const MailUsers::Domain& MailUsers::domain(std::string_view name) {
  if (m_last != nullptr && name == m_lastName) return *m_last;
  const std::string lowered = s_lowered(name);
  const auto [known, isNew] = m_domains.try_emplace(lowered);
  if (isNew && !m_failure) {
    try {
      read(lowered, known->second);
    } catch (const Failure& failure) {
      m_failure = failure;
    }
  }
  m_lastName = name;
  m_last = &known->second;
  return *m_last;
}

void MailUsers::read(const std::string& name, Domain& domain) {
  const CMF::RefApsGwServer server = findDomain(name);
  if (server.isNull()) return;
  domain.isServed = true;
  withConfiguration([&] {
    const CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable> users(server->domainId());
    for (const __aps_mail_user& user : users) {
      const bool isMailbox = user.kind == CMF::MailUserMailbox;
      domain.users.add(std::string(user.user_name).append("@").append(name));
      domain.areMailbox.resize(domain.users.size(), isMailbox);
      if (isMailbox) ++domain.mailboxes;
    }
  });
}

}  // namespace Tessel::Tool
