// The commands on the rows of a mask table: set, remove, list.
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "tables/MaskTable.h"
#include "tables/TableNames.h"
#include "tables/WriteRule.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct MaskArguments {
  std::string privateText;
  std::string publicText;
  RowFilterOptions filter;
  bool force = false;
  bool dryRun = false;
};

// Of `mask remove`; what was not given is null.
struct Removal {
  std::optional<std::string> privateText;
  std::optional<std::string> publicText;
  std::optional<std::string> domain;
  bool dryRun = false;
};

struct Pair {
  EmailAddress privateAddress;
  EmailAddress publicAddress;

  // As table files have it.
  [[nodiscard]] std::string line() const {
    return privateAddress.address() + ":" + publicAddress.address();
  }
  [[nodiscard]] Json json() const {
    return Json{{"private", privateAddress.address()}, {"public", publicAddress.address()}};
  }
};

Pair s_parsePair(const std::string& privateText, const std::string& publicText) {
  return {parseAddress(privateText, false), parseAddress(publicText, false)};
}

ExitCode s_force(Session& session, const Pair& pair) {
  const std::vector<MaskRow> rows =
      MaskTable(maskTableName(session.tableName())).force(pair.privateAddress, pair.publicAddress);
  Json list = Json::array();
  for (const MaskRow& row : rows) {
    list.push_back(jsonOf(row));
    if (session.isJson()) continue;
    session.output().line(printable(row.privateText) + "\t" + printable(row.publicText));
  }
  if (session.isJson()) {
    Json document = pair.json();
    document["rows"] = list;
    session.output().document(document);
  }
  return ExitCode::Done;
}

ExitCode s_set(Session& session, const MaskArguments& arguments) {
  const Pair pair = s_parsePair(arguments.privateText, arguments.publicText);
  for (const EmailAddress& address : {pair.privateAddress, pair.publicAddress}) {
    if (const auto why = refusalOf(address)) {
      throw Failure(ExitCode::BadData, "mask set", *why, "write the literal without it");
    }
  }
  session.tellTarget(TableKind::Mask);
  if (arguments.force) return s_force(session, pair);
  const std::optional<MaskRow> before =
      MaskTable(maskTableName(session.tableName()))
          .set(pair.privateAddress, pair.publicAddress, arguments.dryRun);
  if (!arguments.dryRun) {
    session.detail("set " + pair.privateAddress.address() + " to " + pair.publicAddress.address());
  }
  std::string line = "+ " + pair.line();
  if (before) {
    line = changeOf(before->privateText, before->publicText,
                    {pair.privateAddress, {pair.publicAddress}});
    if (!line.empty()) line.insert(0, "~ ");
  }
  answerChange(session, pair.json(), line, arguments.dryRun);
  return ExitCode::Done;
}

ExitCode s_removePair(Session& session, const Pair& pair, bool dryRun) {
  session.tellTarget(TableKind::Mask);
  const std::string table = maskTableName(session.tableName());
  const bool removed = MaskTable(table).remove(pair.privateAddress, pair.publicAddress, dryRun);
  const std::string shown = pair.privateAddress.address() + " with " + pair.publicAddress.address();
  if (!removed) say("no mask " + shown + " in table " + table);
  if (removed && !dryRun) session.detail("removed " + shown);
  Json document = pair.json();
  document["removed"] = removed;
  answerChange(session, document, removed ? "- " + pair.line() : "", dryRun);
  return removed ? ExitCode::Done : ExitCode::NotFound;
}

// Shows what removing all pairs of `domain` would remove; the number of rows.
std::size_t s_showDomain(Session& session, const std::string& domain, const std::string& table) {
  const std::vector<MaskRow> rows = MaskTable(table).rows(domain);
  if (session.isJson()) return rows.size();
  for (const MaskRow& row : rows) {
    session.output().line("- " + printable(row.privateText + ":" + row.publicText));
  }
  return rows.size();
}

ExitCode s_removeDomain(Session& session, const std::string& domain, bool dryRun) {
  session.tellTarget(TableKind::Mask);
  const std::string table = maskTableName(session.tableName());
  const std::size_t count =
      dryRun ? s_showDomain(session, domain, table) : MaskTable(table).removeDomain(domain);
  if (count == 0) say("no mask of a private address in " + domain + " in table " + table);
  answerChange(session, Json{{"domain", domain}, {"removed", count}}, "", dryRun);
  if (!session.isJson())
    session.output().line(std::to_string(count) + (dryRun ? " would be removed" : " removed"));
  return count != 0 ? ExitCode::Done : ExitCode::NotFound;
}

ExitCode s_remove(Session& session, const Removal& removal) {
  const auto& [privateText, publicText, domain, dryRun] = removal;
  if (privateText && publicText && !domain) {
    return s_removePair(session, s_parsePair(*privateText, *publicText), dryRun);
  }
  if (domain && !privateText && !publicText) {
    return s_removeDomain(session, parseDomain(*domain), dryRun);
  }
  throw Failure(ExitCode::Usage, "mask remove",
                "it takes a private and a public address, or --domain alone",
                "see 'tsl-address-map mask remove --help'");
}

ExitCode s_list(Session& session, const MaskArguments& arguments) {
  return listRows<MaskTable>(
      session, TableKind::Mask, arguments.filter, [](const MaskRow& row, ItemList& list) {
        const Pair pair{row.privateAddress, row.publicAddress};
        list.add(pair.privateAddress.address() + "\t" + pair.publicAddress.address(),
                 [&pair] { return pair.json(); });
      });
}

void s_addSet(Command& group, const std::shared_ptr<MaskArguments>& arguments) {
  Command set = group.command(
      "set", "Show a public address in place of a private one",
      "  tsl-address-map mask set ann@inner.example ann.smith@example.com\n"
      "  tsl-address-map mask set '*@inner.example' '*@example.com'\n"
      "Adds the pair, or changes the public address of a private one. Prints nothing; with --json"
      " {\"private\",\n\"public\"}. A '*' in either address makes it a pair of whole domains. A"
      " public address that belongs to\nanother private one is refused (65).\n"
      "Programs that have the pair in memory keep the old one until they reopen the table.\n",
      Preparation::Database, withArguments(s_set, arguments));
  set.argument("PRIVATE", arguments->privateText, "The private address");
  set.argument("PUBLIC", arguments->publicText, "The address that is shown in its place");
  Option force = set.flag(
      "--force", arguments->force,
      "Write as the library does: if a row already has one of the two addresses, its public"
      " address changes, and no row is added. Prints the rows that then have one of them:"
      " PRIVATE<TAB>PUBLIC (with --json also \"rows\")");
  force.excludes(addDryRun(set, arguments->dryRun));
}

void s_addRemove(Command& group) {
  const auto removal = std::make_shared<Removal>();
  Command remove = group.command(
      "remove", "Remove a pair, or those of a domain; exit 1 when there is none",
      "  tsl-address-map mask remove ann@inner.example ann.smith@example.com\n"
      "  tsl-address-map mask remove --domain inner.example\n"
      "A pair: prints nothing; with --json {\"private\", \"public\", \"removed\"}. A domain: "
      "removes"
      " all pairs whose\nprivate address is of that domain, wildcards too, and prints how many;"
      " with --json {\"domain\", \"removed\"}.\n",
      Preparation::Database, withArguments(s_remove, removal));
  remove.optionalArgument("PRIVATE", removal->privateText, "The private address");
  remove.optionalArgument("PUBLIC", removal->publicText, "Its public address");
  remove.option("--domain", removal->domain, "DOMAIN", "The domain of the private addresses");
  addDryRun(remove, removal->dryRun);
}

}  // namespace

void addMaskCommands(Command& top) {
  const auto arguments = std::make_shared<MaskArguments>();
  Command group = top.group("mask", "Show and change mask tables");
  s_addSet(group, arguments);
  s_addRemove(group);

  Command list = group.command(
      "list", "List the pairs of private and public addresses",
      "  tsl-address-map mask list --domain inner.example\n"
      "  tsl-address-map mask list --match '*sales*' | cut -f2\n"
      "  tsl-address-map mask list --changed-since yesterday\n"
      "One pair per line: PRIVATE<TAB>PUBLIC; with --json a list of {\"private\", \"public\"}.\n"
      "Broken rows are reported on standard error, and the exit status is 65.\n",
      Preparation::Database, withArguments(s_list, arguments));
  addRowFilter(list, arguments->filter, TableFormat::mask());

  addMaskFindCommands(group);
  addMaskExplainCommand(group);
  addEditCommand(group, TableFormat::mask());
  addExportCommand(group, TableFormat::mask());
  addImportCommand(group, TableFormat::mask());
}

}  // namespace Tessel::Tool
