// The commands `mask public` and `mask private`: the other address of a pair, for addresses of the
// command line or of standard input.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/RowReport.h"
#include "tables/MaskTable.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

enum class Side { Public, Private };

enum class Outcome { Found, NoMask, BrokenRow };

const char* s_text(Outcome outcome) {
  switch (outcome) {
    case Outcome::Found:
      return "found";
    case Outcome::NoMask:
      return "no-mask";
    case Outcome::BrokenRow:
      return "broken-row";
  }
  return "";
}

// Looks up addresses, one after the other, through one store.
class Finder {
 public:
  // `wanted` is the side that is looked for.
  Finder(const Session& session, Side wanted) : m_session(session), m_wanted(wanted) {}

  // Answers in `found`, and reports a broken row behind an empty answer. Throws Failure or
  // Exception when there is no answer.
  Outcome find(const EmailAddress& address, EmailAddress& found) {
    found = ask(address);
    return found.isNull() ? explainNothing(address, found) : Outcome::Found;
  }

 private:
  EmailAddress ask(const EmailAddress& address) {
    return withTableFaultsNamed(m_session, TableKind::Mask, [&] {
      // Preload is required: without it neither the table nor a wildcard row is ever asked.
      if (!m_store) m_store.emplace(AddressMapDb::MySQL, true);
      const AddressMaskDb table = m_store->maskDb(m_session.tableName());
      return m_wanted == Side::Public ? table.findPublicAddress(address)
                                      : table.findPrivateAddress(address);
    });
  }

  // The library answers null both for no row and for a row with an empty column.
  Outcome explainNothing(const EmailAddress& address, EmailAddress& found) {
    const std::string name = maskTableName(m_session.tableName());
    if (!m_table) m_table.emplace(name);
    const bool byPrivate = m_wanted == Side::Public;
    for (const MaskRow& row :
         byPrivate ? m_table->withPrivate(address) : m_table->withPublic(address)) {
      if (!((byPrivate ? row.privateAddress : row.publicAddress) == address)) continue;
      if (row.fault != RowFault::None) {
        report(brokenRow(row, name));
        return Outcome::BrokenRow;
      }
      // The store counted its rows when it was opened. A row that came later may need a new one.
      m_store.reset();
      found = ask(address);
    }
    return found.isNull() ? Outcome::NoMask : Outcome::Found;
  }

  const Session& m_session;
  Side m_wanted;
  std::optional<AddressMapDb> m_store;
  std::optional<MaskTable> m_table;
};

// Looks up addresses and writes each answer before the next is asked for.
class FindRun {
 public:
  FindRun(Session& session, Side wanted, bool withAddress)
      : m_session(session),
        m_finder(session, wanted),
        m_list(session.output()),
        m_wanted(wanted),
        m_withAddress(withAddress) {}

  void answer(const EmailAddress& address) {
    EmailAddress found;
    const Outcome outcome = m_finder.find(address, found);
    if (outcome == Outcome::BrokenRow) m_code = ExitCode::BadData;
    if (outcome == Outcome::NoMask && m_code == ExitCode::Done) m_code = ExitCode::NotFound;
    if (outcome == Outcome::NoMask && !m_withAddress) {
      say(std::string("no mask of the ") + (m_wanted == Side::Public ? "private" : "public") +
          " address " + address.address() + " in table " + maskTableName(m_session.tableName()));
    }
    write(address, outcome, found);
    // Whoever writes the addresses may wait for this answer.
    m_session.output().flush();
  }

  // What the answers mean for the exit status, with `read` that of the input.
  ExitCode end(ExitCode read) {
    m_list.end();
    return read == ExitCode::Done ? m_code : read;
  }

 private:
  void write(const EmailAddress& address, Outcome outcome, const EmailAddress& found) {
    const std::string text = found.address();
    if (m_session.isJson()) {
      m_list.add("", [&] {
        Json document{{"address", address.address()}, {"outcome", s_text(outcome)}};
        document[m_wanted == Side::Public ? "public" : "private"] =
            outcome == Outcome::Found ? Json(text) : Json();
        return document;
      });
    } else if (m_withAddress && outcome != Outcome::BrokenRow) {
      m_session.output().line(address.address() + "\t" + text);
    } else if (outcome == Outcome::Found) {
      m_session.output().line(text);
    }
  }

  Session& m_session;
  Finder m_finder;
  ItemList m_list;
  Side m_wanted;
  bool m_withAddress;
  ExitCode m_code = ExitCode::Done;
};

ExitCode s_find(Session& session, const std::vector<std::string>& addresses, Side wanted) {
  session.tellTarget(TableKind::Mask);
  FindRun run(session, wanted, !isSingle(addresses));
  return run.end(
      forEachAddress(addresses, [&run](const EmailAddress& address) { run.answer(address); }));
}

void s_add(Command& mask, Side wanted, const std::string& example) {
  const auto addresses = std::make_shared<std::vector<std::string>>();
  const std::string side = wanted == Side::Public ? "public" : "private";
  const std::string other = wanted == Side::Public ? "private" : "public";
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
  s_add(mask, Side::Public, "ann@inner.example");
  s_add(mask, Side::Private, "ann.smith@example.com");
}

}  // namespace Tessel::Tool
