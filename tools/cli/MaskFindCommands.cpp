// The commands `mask public` and `mask private`: the other address of a pair, for addresses of the
// command line or of standard input.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/AddressLookup.h"
#include "cli/Command.h"
#include "tables/Extension.h"
#include "tables/MaskTable.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Looks up addresses, one after the other, through one store.
class Finder {
 public:
  // `wanted` is the side that is looked for.
  Finder(const Session& session, MaskSide wanted)
      : m_session(session), m_wanted(wanted), m_store(session, TableKind::Mask) {}

  // Throws Failure or Exception when there is no answer.
  LookupAnswer find(const EmailAddress& address) {
    const std::string name = maskTableName(m_session.tableName());
    if (!m_table) m_table.emplace(name);
    EmailAddress found = m_store.find(m_wanted, address);
    // The library answers null both for no row and for a row with an empty column.
    if (found.isNull()) {
      const std::string base = withoutExtension(address.address());
      auto spelled = m_table->spelled(otherSide(m_wanted), address);
      if (spelled.empty() && !base.empty()) {
        spelled = m_table->spelled(otherSide(m_wanted), EmailAddress::rfc5321Parse(base, false));
      }
      for (const MaskRow& row : spelled) {
        if (row.fault != RowFault::None) {
          report(brokenRow(row, name));
          return {"broken-row", ExitCode::BadData, {}, ""};
        }
        found = findStored(row.address(otherSide(m_wanted)), address);
      }
    }
    tellServed(address, found);
    if (!found.isNull()) return {"found", ExitCode::Done, {found}, ""};
    return {"no-mask",
            ExitCode::NotFound,
            {},
            std::string("no mask of the ") + textOf(otherSide(m_wanted)) + " address " +
                address.address() + " in table " + name};
  }

 private:
  // What the row of `stored`, another spelling of `address` or that without its tag, leads to.
  EmailAddress findStored(const EmailAddress& stored, const EmailAddress& address) {
    if (!(stored == address)) {
      say("address " + address.address() + " has the row of " + stored.address());
    }
    m_store.close();
    EmailAddress found = m_store.find(m_wanted, stored);
    const ExtendedAddress cut = cutExtension(address.address(), s_delimiters);
    const bool hasTag = !cutExtension(stored.address(), s_delimiters).extension.empty();
    if (found.isNull() || hasTag) return found;
    return EmailAddress::rfc5321Parse(withExtension(found.address(), cut.extension, s_delimiters),
                                      false);
  }

  // Reports what the lookup service answers where that is not `found`: the library prefers a
  // wildcard row to the row of another spelling, or of the address without its tag.
  void tellServed(const EmailAddress& address, const EmailAddress& found) {
    const bool hasTag = !withoutExtension(address.address()).empty();
    // It is from a row of its own.
    if (!hasTag && !found.isNull() && found.local() != address.local()) return;
    if (!m_wildcards) m_wildcards = m_table->wildcards();
    const auto served = m_table->served(m_wanted, address, *m_wildcards);
    if (!served || *served == found) return;
    say("warning: to mail servers, the lookup service answers " +
        (served->isNull() ? "that there is none" : served->address()) + " for " +
        address.address() + ": it compares spellings and tags otherwise than the library");
  }

  const Session& m_session;
  MaskSide m_wanted;
  LookupStore m_store;
  std::optional<MaskTable> m_table;
  std::optional<std::vector<MaskRow>> m_wildcards;  // As they were when they were first needed.
};

ExitCode s_find(Session& session, const std::vector<std::string>& addresses, MaskSide wanted) {
  session.tellTarget(TableKind::Mask);
  Finder finder(session, wanted);
  const auto toJson = [](const std::set<EmailAddress>& found) {
    return found.empty() ? Json() : Json(found.begin()->address());
  };
  return lookUp(session, addresses, textOf(wanted), toJson,
                [&](const EmailAddress& address) { return finder.find(address); });
}

void s_add(Command& mask, MaskSide wanted, const std::string& example) {
  const auto addresses = std::make_shared<std::vector<std::string>>();
  const std::string side = textOf(wanted);
  const std::string other = textOf(otherSide(wanted));
  Command command = mask.command(
      side, "Show the " + side + " address of a " + other + " one; exit 1 when there is none",
      "  tsl-address-map mask " + side + " " + example +
          "\n"
          "  tsl-address-map mask " +
          side +
          " - <addresses.txt\n"
          "For one address: the " +
          side +
          " address. For several, and for '-' (addresses on standard input, one per line):\n"
          "ADDRESS<TAB>RESULT per line, in the order of the input, RESULT being empty when there"
          " is none. An input that\nis not an address is reported on standard error, and the exit"
          " status is 65.\n"
          "With --json always a list of {\"address\", \"outcome\", \"" +
          side + "\"}; the outcome is found, no-mask or broken-row.\n",
      Preparation::Database,
      [addresses, wanted](Session& session) { return s_find(session, *addresses, wanted); });
  command.arguments("ADDRESS", *addresses, "An address, or - for standard input");
}

}  // namespace

void addMaskFindCommands(Command& mask) {
  s_add(mask, MaskSide::Public, "ann@inner.example");
  s_add(mask, MaskSide::Private, "ann.smith@example.com");
}

}  // namespace Tessel::Tool
