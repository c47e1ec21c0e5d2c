// Looking up addresses through the library.
#include "cli/AddressLookup.h"

#include <algorithm>

#include "cli/AddressInput.h"
#include "tables/RowReader.h"

namespace Tessel::Tool {

std::set<EmailAddress> LookupStore::expand(const EmailAddress& alias) {
  open();
  return withTableFaultsNamed(m_session, m_kind, [&] {
    return m_store->aliasDb(m_session.tableName()).expandAlias(alias);
  });
}

EmailAddress LookupStore::find(MaskSide side, const EmailAddress& address) {
  open();
  return withTableFaultsNamed(m_session, m_kind, [&] {
    const AddressMaskDb table = m_store->maskDb(m_session.tableName());
    return side == MaskSide::Public ? table.findPublicAddress(address)
                                    : table.findPrivateAddress(address);
  });
}

void LookupStore::open() {
  if (m_store) return;
  // Preload is required: without it an address that is not cached is answered as absent, and
  // neither the table nor a wildcard row is ever asked.
  withTableFaultsNamed(m_session, m_kind, [this] { m_store.emplace(AddressMapDb::MySQL, true); });
}

ExitCode lookUp(Session& session, const std::vector<std::string>& arguments, const std::string& key,
                Json (*toJson)(const std::set<EmailAddress>& found),
                const std::function<LookupAnswer(const EmailAddress&)>& ask) {
  const bool single = isSingle(arguments);
  ItemList list(session.output());
  ExitCode worst = ExitCode::Done;
  const auto write = [&](const std::string& address, const LookupAnswer& answer) {
    if (session.isJson() || (!single && answer.code != ExitCode::BadData)) {
      return list.add(address + "\t" + joined(answer.found), [&] {
        return Json{{"address", address}, {"outcome", answer.outcome}, {key, toJson(answer.found)}};
      });
    }
    for (const EmailAddress& found : answer.found) session.output().line(found.address());
  };
  const ExitCode read = forEachAddress(arguments, [&](const EmailAddress& address) {
    const LookupAnswer answer = ask(address);
    worst = std::max(worst, answer.code);
    if (single && !answer.absence.empty()) say(answer.absence);
    write(address.address(), answer);
    // Whoever writes the addresses may wait for this answer.
    session.output().flush();
  });
  list.end();
  return std::max(read, worst);
}

}  // namespace Tessel::Tool
