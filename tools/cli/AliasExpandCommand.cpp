// The command `alias expand`: final addresses, for addresses of the command line or of standard
// input.
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "cli/AddressLookup.h"
#include "cli/AliasEdit.h"
#include "cli/Command.h"
#include "tables/Configuration.h"
#include "tables/Extension.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

using Addresses = std::set<EmailAddress>;

// Expands addresses, one after the other, through one store.
class Expander {
 public:
  explicit Expander(const Session& session)
      : m_session(session), m_store(session, TableKind::Alias) {}

  // Throws Failure or Exception when there is no answer.
  LookupAnswer expand(const EmailAddress& asked) {
    EmailAddress address = asked;
    Addresses found = m_store.expand(address);
    // The library answers the empty set both without an alias and for an alias that leads nowhere.
    if (found.empty()) {
      const std::string name = aliasTableName(m_session.tableName());
      if (!m_table) m_table.emplace(name);
      AliasLook look = m_table->look(address);
      if (const auto base = baseOf(*m_table, address, look)) address = *base;
      if (look.kind == AliasLook::Kind::Absent || look.kind == AliasLook::Kind::Other) {
        return {"no-alias", ExitCode::NotFound, {}, noAlias(address, m_session)};
      }
      if (look.row.fault != RowFault::None) {
        report(brokenRow(look.row, name));
        return {"broken-row", ExitCode::BadData, {}, ""};
      }
      tellSpelling(address, look);
      address = look.row.alias;
      m_store.close();
      found = m_store.expand(address);
      if (found.empty()) {
        say("warning: alias " + address.address() + " of table " + name +
            " expands to nothing: its members lead back to it, or it means all users of a domain"
            " that has none");
        return {"expands-to-nothing", ExitCode::NotFound, {}, ""};
      }
    }
    checkMarker(address, found);
    tellDifference(found);
    return {"found", ExitCode::Done, std::move(found), ""};
  }

 private:
  // The library answers with the marker itself when the configuration knows no such domain, and
  // also when the configuration cannot be read. The second is a failure.
  static void checkMarker(const EmailAddress& address, const Addresses& found) {
    const std::string marker = "allusers_" + address.domain();
    if (found.size() != 1 || !stringCompareNoCase(found.begin()->address(), marker, 0)) return;
    if (findDomain(address.domain()).isNull()) {
      say("warning: '" + marker + "' is not replaced: the configuration in " +
          configurationDirectory() + " has no domain " + address.domain());
      return;
    }
    throw Failure(ExitCode::Unavailable, "expanding " + address.address(),
                  "the mail users of " + address.domain() + " could not be read",
                  "look at them with 'tsl-address-map user list " + address.domain() + "'");
  }

  // To the library, a member in another spelling than its row, or with a tag, is a final address.
  void tellDifference(const Addresses& found) {
    if (!m_table) m_table.emplace(aliasTableName(m_session.tableName()));
    for (const auto& [text, name] : m_table->spellingsOf(found)) tellFollowed(text, name);
    Addresses bases;
    for (const EmailAddress& one : found) {
      const std::string base = withoutExtension(one.address());
      if (!base.empty()) bases.insert(EmailAddress::rfc5321Parse(base, false));
    }
    if (bases.empty()) return;
    for (const auto& [base, row] : m_table->lookSpelled(bases)) {
      tellFollowed(base.address() + " with a tag", row.name);
    }
  }

  static void tellFollowed(const std::string& text, const std::string& name) {
    say("warning: mail servers find the alias " + name + " for " + text +
        ", which is a final address to the library; 'alias tree' and 'answer' follow it");
  }

  const Session& m_session;
  LookupStore m_store;
  std::optional<AliasTable> m_table;
};

ExitCode s_expand(Session& session, const std::vector<std::string>& addresses) {
  session.tellTarget(TableKind::Alias);
  Expander expander(session);
  return lookUp(session, addresses, "expansion", jsonOf,
                [&](const EmailAddress& address) { return expander.expand(address); });
}

}  // namespace

void addAliasExpandCommand(Command& alias) {
  const auto addresses = std::make_shared<std::vector<std::string>>();
  Command expand = alias.command(
      "expand",
      "Show the final addresses that mail for an address reaches; exit 1 when it is not an alias",
      "  tsl-address-map alias expand team@example.com\n"
      "  tsl-address-map alias expand team@example.com all@example.com\n"
      "  tsl-address-map alias expand - <addresses.txt\n"
      "For one address: one final address per line. For several, and for '-' (addresses on standard"
      " input,\none per line): ADDRESS<TAB>FINAL,FINAL... per line, in the order of the input. An"
      " input that is not an\naddress is reported on standard error, and the exit status is 65.\n"
      "With --json always a list of {\"address\", \"outcome\", \"expansion\"}; the outcome is "
      "found,"
      " no-alias,\nexpands-to-nothing or broken-row.\n",
      Preparation::Database, withArguments(s_expand, addresses));
  expand.arguments("ADDRESS", *addresses, "An address, or - for standard input");
}

}  // namespace Tessel::Tool
