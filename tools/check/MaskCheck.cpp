// The check of one mask table.
#include "check/MaskCheck.h"

#include <map>
#include <set>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "tables/AliasGraph.h"
#include "tables/AliasTable.h"
#include "tables/RowReader.h"
#include "tables/SpellingIndex.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

class MaskCheck {
 public:
  MaskCheck(const std::string& table, MailUsers& users, Findings& findings)
      : m_table(table), m_users(users), m_findings(findings) {}

  std::uint64_t run(Database::Connection& connection, const CountRows& count) {
    const std::string statement = "select private, public from " + quotedName(m_table) + ";";
    selectPairs(
        connection, statement,
        [this](std::string_view privateText, std::string_view publicText) {
          read(privateText, publicText);
        },
        count);
    for (const Pair& pair : m_pairs) checkPair(pair);
    checkWildcards();
    return m_rows;
  }

  // Reports private addresses to which no mail can be delivered.
  void checkPrivate(const std::vector<std::string>& aliasTables) {
    std::set<EmailAddress> nobody;
    for (const Pair& pair : m_pairs) {
      const std::string_view address = m_private.text(pair.privateAddress);
      const MailUsers::Kind kind = m_users.kindOf(address);
      const bool isNobody = kind == MailUsers::Kind::Nobody || kind == MailUsers::Kind::Disabled;
      if (isNobody) nobody.insert(EmailAddress::rfc5321Parse(address, false));
    }
    if (m_users.failure()) return;
    for (const std::string& table : aliasTables) {
      for (const auto& [alias, row] : AliasTable(table).lookSpelled(nobody)) nobody.erase(alias);
    }
    for (const EmailAddress& address : nobody) {
      const bool isDisabled = m_users.kindOf(address.address()) == MailUsers::Kind::Disabled;
      add(Severity::Warning, "mask-nobody", address.address(),
          isDisabled ? "is a disabled mail user: mail for its public address is accepted, and"
                       " refused or lost later"
                     : "is neither an alias nor a mail user of its domain, which is served here:"
                       " mail for its public address reaches nobody");
    }
  }

 private:
  struct Pair {
    AddressIndex::Id privateAddress;
    AddressIndex::Id publicAddress;
  };

  void add(Severity severity, const char* kind, std::string_view privateText,
           const std::string& what, const std::string& command) {
    m_findings.add({severity, kind, m_table, std::string(privateText), what, command, {}});
  }

  void add(Severity severity, const char* kind, std::string_view privateText,
           const std::string& what) {
    const std::string command = commandOn(m_table, "mask explain " + shellWord(privateText));
    add(severity, kind, privateText, what,
        command.empty() ? selectRow(m_table, "private", privateText) : command);
  }

  void read(std::string_view privateText, std::string_view publicText) {
    ++m_rows;
    if (m_reader.read(privateText, publicText) != RowFault::None) {
      add(Severity::Error, "broken-row", privateText, m_reader.why(),
          selectRow(m_table, "private", privateText));
      return;
    }
    const bool isWildcard = privateText.find('*') != std::string_view::npos ||
                            publicText.find('*') != std::string_view::npos;
    if (isWildcard) addWildcard(m_reader.key(), m_reader.values().front());
    const AddressIndex::Added key = m_private.add(m_reader.key());
    const AddressIndex::Added shown = m_public.add(m_reader.values().front());
    if (!key.isNew || !shown.isNew) addDouble(privateText, publicText, key.isNew);
    if (!isWildcard) m_pairs.push_back({key.id, shown.id});
  }

  void addDouble(std::string_view privateText, std::string_view publicText, bool isPublic) {
    add(Severity::Error, "double-row", privateText,
        isPublic ? "its public address " + std::string(publicText) +
                       " is the same address as that of another row"
                 : std::string("is the same address as that of another row"),
        selectRow(m_table, "private", privateText));
  }

  void addWildcard(std::string_view privateAddress, std::string_view publicAddress) {
    const std::string domain(domainOf(privateAddress));
    const auto [known, isNew] = m_wildcards.try_emplace(domain, domainOf(publicAddress));
    if (isNew) return;
    add(Severity::Warning, "wildcard-double", privateAddress,
        "is a wildcard row of " + domain + ", as is another: the one that is read last answers");
    known->second = domainOf(publicAddress);
  }

  void checkPair(const Pair& pair) {
    const std::string key(m_private.text(pair.privateAddress));
    const std::string shown(m_public.text(pair.publicAddress));
    const AddressIndex::Id next = m_private.find(shown);
    if (next != AddressIndex::s_none && next != pair.privateAddress) {
      add(Severity::Warning, "mask-chain", key,
          "its public address " + shown +
              " is the private address of another row: only one of the two is followed");
    }
    const auto wildcard = m_wildcards.find(std::string(domainOf(key)));
    if (wildcard == m_wildcards.end() || wildcard->second == domainOf(shown)) return;
    add(Severity::Notice, "wildcard-shadowed", key,
        "is shown as " + shown + ", while the wildcard row of its domain leads to " +
            wildcard->second);
  }

  void checkWildcards() {
    std::map<std::string, std::vector<std::string>> byPublic;
    for (const auto& [privateDomain, publicDomain] : m_wildcards) {
      byPublic[publicDomain].push_back(privateDomain);
    }
    for (const auto& [publicDomain, domains] : byPublic) {
      if (domains.size() < 2) continue;
      std::string others;
      for (std::size_t i = 1; i < domains.size(); ++i) {
        others.append(i == 1 ? "" : ", ").append(domains[i]);
      }
      add(Severity::Warning, "wildcard-ambiguous", "*@" + domains.front(),
          "of several private domains with the public domain " + publicDomain +
              " the first by byte order answers, " + domains.front() + "; never found: " + others,
          commandOn(m_table, "mask explain " + shellWord("x@" + publicDomain)));
    }
  }

  const std::string& m_table;
  MailUsers& m_users;
  Findings& m_findings;
  std::uint64_t m_rows = 0;
  RowReader m_reader{TableKind::Mask};
  SpellingIndex m_private;
  SpellingIndex m_public;
  std::vector<Pair> m_pairs;                       // Without wildcard rows.
  std::map<std::string, std::string> m_wildcards;  // Domains, byte by byte.
};

}  // namespace

std::uint64_t checkMaskTable(Database::Connection& connection, const std::string& table,
                             const std::vector<std::string>& aliasTables, MailUsers& users,
                             Findings& findings, const CountRows& count) {
  MaskCheck check(table, users, findings);
  const std::uint64_t rows = check.run(connection, count);
  check.checkPrivate(aliasTables);
  return rows;
}

}  // namespace Tessel::Tool
