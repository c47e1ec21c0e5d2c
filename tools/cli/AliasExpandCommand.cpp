// The command `alias expand`: final addresses, for addresses of the command line or of standard
// input.
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/RowReport.h"
#include "tables/AliasTable.h"
#include "tables/Configuration.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Addresses = std::set<EmailAddress>;

enum class Outcome { Found, NoAlias, ExpandsToNothing, BrokenRow };

const char* s_text(Outcome outcome) {
  switch (outcome) {
    case Outcome::Found:
      return "found";
    case Outcome::NoAlias:
      return "no-alias";
    case Outcome::ExpandsToNothing:
      return "expands-to-nothing";
    case Outcome::BrokenRow:
      return "broken-row";
  }
  return "";
}

// Expands addresses, one after the other, through one store.
class Expander {
 public:
  explicit Expander(const Session& session) : m_session(session) {}

  // Answers in `found`, and reports what an empty answer means. Throws Failure or Exception when
  // there is no answer.
  Outcome expand(const EmailAddress& address, Addresses& found) {
    withTableFaultsNamed(m_session, TableKind::Alias, [&] { found = ask(address); });
    const Outcome outcome = found.empty() ? explainNothing(address, found) : Outcome::Found;
    if (outcome == Outcome::Found) checkMarker(address, found);
    return outcome;
  }

 private:
  Addresses ask(const EmailAddress& address) {
    // Preload is required: without it an address that is not cached is answered as absent, and the
    // table is never asked.
    if (!m_store) m_store.emplace(AddressMapDb::MySQL, true);
    return m_store->aliasDb(m_session.tableName()).expandAlias(address);
  }

  // The library answers the empty set both without an alias and for an alias that leads nowhere.
  Outcome explainNothing(const EmailAddress& address, Addresses& found) {
    const std::string name = aliasTableName(m_session.tableName());
    if (!m_table) m_table.emplace(name);
    const AliasLook look = m_table->look(address);
    if (look.kind != AliasLook::Kind::Present) return Outcome::NoAlias;
    if (look.row.fault != RowFault::None) {
      report(brokenRow(look.row, name));
      return Outcome::BrokenRow;
    }
    // The store counted its rows when it was opened. A row that came later may need a new one.
    m_store.reset();
    withTableFaultsNamed(m_session, TableKind::Alias, [&] { found = ask(address); });
    if (!found.empty()) return Outcome::Found;
    say("warning: alias " + address.address() + " of table " + name +
        " expands to nothing: its members lead back to it, or it means all users of a domain"
        " that has none");
    return Outcome::ExpandsToNothing;
  }

  // The library answers with the marker itself when the configuration knows no such domain, and
  // also when the configuration cannot be read. The second is a failure.
  void checkMarker(const EmailAddress& address, const Addresses& found) const {
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

  const Session& m_session;
  std::optional<AddressMapDb> m_store;
  std::optional<AliasTable> m_table;
};

ExitCode s_worse(ExitCode a, ExitCode b) {
  return a < b ? b : a;
}

// Expands `addresses` one by one and writes each answer before the next is asked for.
class ExpandRun {
 public:
  ExpandRun(Session& session, bool withAddress)
      : m_session(session),
        m_expander(session),
        m_list(session.output()),
        m_withAddress(withAddress) {}

  // What an answer means for the exit status; the worst of all that was met.
  [[nodiscard]] ExitCode code() const { return m_code; }

  void answer(const EmailAddress& address) {
    Addresses found;
    const Outcome outcome = m_expander.expand(address, found);
    if (outcome == Outcome::BrokenRow) m_code = s_worse(m_code, ExitCode::BadData);
    if (outcome != Outcome::Found) m_code = s_worse(m_code, ExitCode::NotFound);
    if (outcome == Outcome::NoAlias && !m_withAddress) sayNoAlias(address, m_session);
    write(address, outcome, found);
    // Whoever writes the addresses may wait for this answer.
    m_session.output().flush();
  }

  void end() { m_list.end(); }

 private:
  void write(const EmailAddress& address, Outcome outcome, const Addresses& found) {
    const auto json = [&] {
      Json document{{"address", address.address()}, {"outcome", s_text(outcome)}};
      document["expansion"] = jsonOf(found);
      return document;
    };
    if (m_session.isJson() || (m_withAddress && outcome != Outcome::BrokenRow)) {
      m_list.add(address.address() + "\t" + joined(found), json);
    } else {
      for (const EmailAddress& member : found) m_session.output().line(member.address());
    }
  }

  Session& m_session;
  Expander m_expander;
  ItemList m_list;
  bool m_withAddress;
  ExitCode m_code = ExitCode::Done;
};

ExitCode s_expand(Session& session, const std::vector<std::string>& addresses) {
  session.tellTarget(TableKind::Alias);
  ExpandRun run(session, !isSingle(addresses));
  const ExitCode read =
      forEachAddress(addresses, [&run](const EmailAddress& address) { run.answer(address); });
  run.end();
  return s_worse(read, run.code());
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
      Preparation::Database,
      [addresses](Session& session) { return s_expand(session, *addresses); });
  expand.arguments("ADDRESS", *addresses, "An address, or - for standard input");
}

}  // namespace Tessel::Tool
