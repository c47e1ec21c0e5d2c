// Keyed look-up of a mail user: its domain's record, then its own.
#include "cmf/MailUserLookup.h"

#include <memory>

#include "cmf/Failure.h"
#include "cmf/Snapshot.h"
#include "cmf/StorageFormat.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_place{"CMF::MailUserLookup", "MailUserLookup"};

// False for names that the writer refuses and a key could not hold: none is stored.
bool s_canBeStored(const std::string& name, std::size_t limit) {
  return !name.empty() && name.size() <= limit && name.find('\0') == std::string::npos;
}

}  // namespace

MailUserAnswer findMailUser(const std::string& domain, const std::string& user) {
  using State = MailUserAnswer::State;
  const auto snapshot = Snapshot::ofThisThread();
  if (!s_canBeStored(domain, s_maxDomain)) return {};
  const auto* server =
      snapshot->get<ApsGwServerRecord>(Key(s_commonGroup, s_domainTable, foldName(domain)));
  if (server == nullptr) return {};
  if (s_canBeStored(user, s_maxUserName)) {
    const auto* found =
        snapshot->get<__aps_mail_user>(Key(server->domainId, s_mailUserTable, foldName(user)));
    if (found != nullptr) return {State::Found, static_cast<MailUserKind>(found->kind)};
  }
  // Every domain has this table. Without it the configuration is damaged, and "no such user" would
  // lose mail.
  if (snapshot->get<TableRecord>(Key(server->domainId, s_mailUserTable)) == nullptr) {
    fail(s_place, "The configuration in " + snapshot->environment().path() +
                      " has no mail users of a domain that it has");
  }
  return {State::UnknownUser, MailUserDisabled};
}

}  // namespace Tessel::CMF
