// Joining the spellings in which the configuration has a domain.
#include "tables/DomainMerge.h"

#include "base/stringCompareNoCase.h"
#include "cmf/Writer.h"
#include "tables/AddressKey.h"
#include "tables/UserNames.h"

namespace Tessel::Tool {

std::string nameToStore(const std::string& domain) {
  std::string key;
  if (domainKey(domain, key)) return stringCompareNoCase(domain, key, 0) ? domain : key;
  throw Failure(ExitCode::BadData, "domain " + domain, "no mail server can ask for it",
                "write it as it is in mail, with the labels beyond ASCII as xn--...");
}

DomainMerge::DomainMerge(const std::string& domain, MailUsers& users)
    : m_name(nameToStore(domain)) {
  for (const StoredDomain& one : users.spellingsOf(domain)) {
    if (!stringCompareNoCase(one.name, m_name, 0)) m_gone.push_back(one.name);
  }
  for (const std::vector<StoredUser>& spellings : users.usersOf(domain)) {
    const StoredUser& first = spellings.front();
    for (const StoredUser& other : spellings) {
      if (other.kind == first.kind) continue;
      throw Failure(ExitCode::BadData, "mail user " + first.address(),
                    "it is of the kind " + userKindText(first.kind) + ", and " + other.address() +
                        " of the kind " + userKindText(other.kind),
                    "nothing was changed; make them equal with 'user add --kind' first");
    }
    m_users[first.name] = static_cast<CMF::MailUserKind>(first.kind);
  }
  users.require();
}

void DomainMerge::write() const {
  if (m_gone.empty()) return;
  CMF::Writer writer;
  writer.addDomain(m_name);
  for (const auto& [user, kind] : m_users) writer.addUser(m_name, user, kind);
  for (const std::string& name : m_gone) writer.removeDomain(name);
  writer.commit();
}

}  // namespace Tessel::Tool
