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
    const MaskSide given = otherSide(m_wanted);
    EmailAddress found = m_store.find(m_wanted, address);
    // The library answers null both for no row and for a row with an empty column.
    if (found.isNull()) {
      if (!m_table) m_table.emplace(name);
      std::vector<MaskRow> rows = m_table->spelled(given, address);
      const std::string base = withoutExtension(address.address());
      if (rows.empty() && !base.empty()) {
        rows = m_table->spelled(given, EmailAddress::rfc5321Parse(base, false));
      }
      for (const MaskRow& row : rows) {
        if (row.fault != RowFault::None) {
          report(brokenRow(row, name));
          return {"broken-row", ExitCode::BadData, {}, ""};
        }
        const EmailAddress& stored = row.address(given);
        if (!(stored == address)) {
          say("address " + address.address() + " has the row of " + stored.address());
        }
        m_store.close();
        found = m_store.find(m_wanted, stored);
      }
    }
    if (!found.isNull()) return {"found", ExitCode::Done, {found}, ""};
    return {"no-mask",
            ExitCode::NotFound,
            {},
            std::string("no mask of the ") + textOf(given) + " address " + address.address() +
                " in table " + name};
  }

 private:
  const Session& m_session;
  MaskSide m_wanted;
  LookupStore m_store;
  std::optional<MaskTable> m_table;
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
