// The commands on the domains of the configuration: add, remove, list.
#include <memory>
#include <string>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/Writer.h"
#include "tables/Configuration.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct Arguments {
  std::string domain;
  bool dryRun = false;
};

// What adding `domain` would give; the identifier of a new one is not known before. A configuration
// that is missing has no domain.
CMF::Writer::Domain s_wouldAdd(const std::string& domain) {
  try {
    const CMF::RefApsGwServer server = findDomain(domain);
    if (!server.isNull()) return {server->domainId(), false};
  } catch (const Failure& failure) {
    if (failure.code() != ExitCode::Configuration) throw;
  }
  return {0, true};
}

CMF::Writer::Domain s_write(const std::string& domain) {
  return withConfiguration([&] {
    CMF::Writer writer;
    const CMF::Writer::Domain added = writer.addDomain(domain);
    writer.commit();
    return added;
  });
}

ExitCode s_add(Session& session, const Arguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  const bool dryRun = arguments.dryRun;
  const auto [id, added] = dryRun ? s_wouldAdd(domain) : s_write(domain);
  if (!added) say("domain " + domain + " exists already");
  Json document{{"domain", domain}, {"id", id}, {"added", added}};
  if (dryRun && added) document["id"] = nullptr;
  answerChange(session, document, added ? "+ " + domain : "", dryRun);
  if (!dryRun && !session.isJson()) session.output().line(std::to_string(id));
  return ExitCode::Done;
}

ExitCode s_remove(Session& session, const Arguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  // Checked first: a writer would create a missing configuration.
  bool removed = !findDomain(domain).isNull();
  if (removed && !arguments.dryRun) {
    removed = withConfiguration([&] {
      CMF::Writer writer;
      const bool present = writer.removeDomain(domain);
      writer.commit();
      return present;
    });
  }
  if (!removed) say("no domain " + domain + " in the configuration in " + configurationDirectory());
  answerChange(session, Json{{"domain", domain}, {"removed", removed}},
               removed ? "- " + domain : "", arguments.dryRun);
  return removed ? ExitCode::Done : ExitCode::NotFound;
}

ExitCode s_list(Session& session) {
  const auto domains =
      withConfiguration([] { return CMF::RefApsGwServerCache::instance(false)->domains(); });
  ItemList list(session.output());
  for (const CMF::ApsGwServerRecord& record : domains) {
    const std::string domain = printable(record.domain);
    list.add(domain + "\t" + std::to_string(record.domainId), [&] {
      return Json{{"domain", domain}, {"id", record.domainId}};
    });
  }
  list.end();
  return ExitCode::Done;
}

}  // namespace

void addDomainCommands(Command& top) {
  const auto arguments = std::make_shared<Arguments>();
  Command group = top.group("domain", "Show and change the domains of the configuration");

  Command add =
      group.command("add", "Add a domain and print its identifier; an existing one stays unchanged",
                    "  tsl-address-map domain add example.com\n"
                    "With --json {\"domain\", \"id\", \"added\"}.\n",
                    Preparation::Database, withArguments(s_add, arguments));
  add.argument("DOMAIN", arguments->domain, "The domain");
  addDryRun(add, arguments->dryRun);

  Command remove =
      group.command("remove", "Remove a domain with its mail users; exit 1 when there is none",
                    "  tsl-address-map domain remove example.com\n"
                    "Prints nothing; with --json {\"domain\", \"removed\"}.\n",
                    Preparation::Database, withArguments(s_remove, arguments));
  remove.argument("DOMAIN", arguments->domain, "The domain");
  addDryRun(remove, arguments->dryRun);

  group.command("list", "List the domains with their identifiers",
                "  tsl-address-map domain list\n"
                "One per line: DOMAIN<TAB>ID; with --json a list of {\"domain\", \"id\"}.\n",
                Preparation::Database, s_list);
}

}  // namespace Tessel::Tool
