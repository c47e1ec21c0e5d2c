// The commands on the domains of the configuration: add, remove, merge, list.
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/Intent.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/Writer.h"
#include "database/Connection.h"
#include "database/QueryTableNames.h"
#include "tables/AddressUse.h"
#include "tables/Configuration.h"
#include "tables/DomainMerge.h"
#include "tables/MailUsers.h"
#include "tables/TableNames.h"
#include "tables/UserNames.h"
#include "terminal/Confirm.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct DomainArguments {
  std::string domain;
  bool yes = false;
  bool dryRun = false;
};

// The domain as the configuration has it in any spelling, or nothing. A configuration that is
// missing has none.
std::optional<StoredDomain> s_stored(const std::string& domain) {
  const MailUsers users;
  if (!users.isAbsent()) users.require();
  const std::vector<StoredDomain> spellings = users.spellingsOf(domain);
  if (spellings.empty()) return std::nullopt;
  return spellings.front();
}

CMF::Writer::Domain s_write(const std::string& domain) {
  return withConfiguration([&] {
    CMF::Writer writer;
    const CMF::Writer::Domain added = writer.addDomain(domain);
    std::vector<RowChange> changes;
    if (added.added) {
      changes.push_back(
          {s_domainsName, domain, std::nullopt, "domain " + std::to_string(added.id)});
    }
    Intent intent(std::move(changes), Intent::Without::Warn);
    writer.commit();
    intent.done();
    return added;
  });
}

ExitCode s_add(Session& session, const DomainArguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  const bool dryRun = arguments.dryRun;
  const auto stored = s_stored(domain);
  const std::string name = stored ? stored->name : nameToStore(domain);
  const bool isRespelled = !stringCompareNoCase(name, domain, 0);
  // The writer finds what was added in the meantime.
  const auto [id, added] = stored   ? CMF::Writer::Domain{stored->id, false}
                           : dryRun ? CMF::Writer::Domain{0, true}
                                    : s_write(name);
  if (!added) say("domain " + domain + " exists already" + (isRespelled ? ", as " + name : ""));
  if (added && isRespelled && !dryRun) say("domain " + domain + " is stored as " + name);
  Json document{{"domain", name}, {"id", id}, {"added", added}};
  if (dryRun && added) document["id"] = nullptr;
  answerChange(session, document, added ? "+ " + name : "", dryRun);
  if (!dryRun && !session.isJson()) session.output().line(std::to_string(id));
  return ExitCode::Done;
}

std::string s_namesOf(const std::vector<StoredDomain>& spellings) {
  std::string names;
  for (const StoredDomain& one : spellings) names += (names.empty() ? "" : ", ") + one.name;
  return names;
}

// The name of the one domain that `domain` means; empty when there is none.
std::string s_meant(const std::string& domain, const MailUsers& users) {
  const std::vector<StoredDomain> spellings = users.spellingsOf(domain);
  for (const StoredDomain& one : spellings) {
    if (stringCompareNoCase(one.name, domain, 0)) return one.name;
  }
  if (spellings.size() < 2) return spellings.empty() ? "" : spellings.front().name;
  throw Failure(ExitCode::BadData, "domain " + domain,
                "it is stored in several spellings: " + s_namesOf(spellings),
                "name one of them, or join them with 'tsl-address-map domain merge'");
}

// What is of a domain, as words: "3 mail users, 2 aliases in table alias_sales"; empty for nothing.
// Tables that cannot be asked are a warning: the domain is removed from the configuration.
std::string s_contents(const std::string& domain, std::size_t users) {
  std::string contents = users == 0 ? "" : std::to_string(users) + " mail users";
  const auto add = [&contents](std::size_t rows, const std::string& table, TableKind kind) {
    if (rows == 0) return;
    contents += (contents.empty() ? "" : ", ") + std::to_string(rows) +
                (kind == TableKind::Alias ? " aliases" : " masks") + " in table " + table;
  };
  try {
    Database::Connection connection{std::string(s_database)};
    const auto tables = Database::QueryTableNames(connection).names();
    for (const std::string& table : tables) {
      const auto known = readTableName(table);
      if (known) add(rowsOfDomain(domain, connection, table, known->kind), table, known->kind);
    }
  } catch (const Exception& exception) {
    say("warning: which aliases and masks " + domain +
        " has is unknown: " + failureOf(exception, "").why());
  }
  return contents;
}

// Asks whether `domain` may be removed, which has `contents`. Throws Failure when there is nobody
// to ask.
bool s_mayRemove(const std::string& domain, const std::string& contents) {
  say("domain " + domain + " has " + contents +
      "; mail users go with it, rows of tables stay: 'alias list' and 'mask list' with --domain"
      " show them");
  if (canAsk()) return confirm("Remove " + domain + "?");
  throw Failure(ExitCode::BadData, "domain remove " + domain, "it has " + contents,
                "nothing was changed; look at them with --dry-run, and give --yes to remove them");
}

// The mail users of the domain that is stored as `name`.
std::vector<StoredUser> s_usersOf(MailUsers& users, const std::string& name) {
  std::vector<StoredUser> list;
  for (const auto& found : users.usersOf(name)) {
    for (const StoredUser& user : found) {
      if (user.domain == name) list.push_back(user);
    }
  }
  users.require();
  return list;
}

// The record of removing `domain` with its mail users.
std::vector<RowChange> s_removal(const std::string& domain, const std::vector<StoredUser>& users) {
  std::vector<RowChange> changes{{s_domainsName, domain, "domain", std::nullopt}};
  for (const StoredUser& user : users) {
    changes.push_back({s_usersName, user.address(), userKindText(user.kind), std::nullopt});
  }
  return changes;
}

ExitCode s_remove(Session& session, const DomainArguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  // Checked first: a writer would create a missing configuration.
  MailUsers users;
  users.require();
  const std::string name = s_meant(domain, users);
  bool removed = !name.empty();
  const std::vector<StoredUser> gone = s_usersOf(users, name);
  if (removed && !arguments.yes) {
    const std::string contents = s_contents(name, gone.size());
    if (!contents.empty() && arguments.dryRun) {
      say("domain " + name + " has " + contents + "; rows of tables stay");
    } else if (!contents.empty() && !s_mayRemove(name, contents)) {
      say("nothing was changed");
      return ExitCode::Done;
    }
  }
  if (arguments.dryRun && !session.isJson()) {
    for (const StoredUser& user : gone) session.output().line("- " + printable(user.address()));
  }
  if (removed && !arguments.dryRun) {
    removed = withConfiguration([&] {
      CMF::Writer writer;
      // From now on nobody else changes them.
      MailUsers present;
      if (s_usersOf(present, name) != gone) {
        throw Failure(ExitCode::Unavailable, "domain remove " + domain,
                      "somebody has changed its mail users meanwhile",
                      "nothing was removed; try again");
      }
      const bool isThere = writer.removeDomain(name);
      Intent intent(s_removal(name, gone), Intent::Without::Warn);
      writer.commit();
      intent.done();
      return isThere;
    });
  }
  if (!removed) say("no domain " + domain + " in the configuration in " + configurationDirectory());
  answerChange(
      session,
      Json{{"domain", removed ? name : domain}, {"removed", removed}, {"users", gone.size()}},
      removed ? "- " + name : "", arguments.dryRun);
  return removed ? ExitCode::Done : ExitCode::NotFound;
}

ExitCode s_merge(Session& session, const DomainArguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  MailUsers users;
  users.require();
  const std::vector<StoredDomain> spellings = users.spellingsOf(domain);
  if (spellings.empty()) {
    say("no domain " + domain + " in the configuration in " + configurationDirectory());
    return ExitCode::NotFound;
  }
  const DomainMerge merge(domain, users);
  if (!arguments.dryRun) {
    std::vector<RowChange> changes;
    for (const std::string& one : merge.gone()) {
      changes.push_back({s_domainsName, one, "domain", std::nullopt});
      changes.push_back({s_domainsName, merge.name(), std::nullopt, "users of " + one});
    }
    Intent intent(std::move(changes), Intent::Without::Warn);
    withConfiguration([&] { merge.write(); });
    intent.done();
  }
  if (merge.gone().empty()) say("domain " + merge.name() + " is stored in one spelling only");
  answerChange(session,
               Json{{"domain", merge.name()}, {"merged", merge.gone()}, {"users", merge.users()}},
               "", arguments.dryRun);
  if (session.isJson()) return ExitCode::Done;
  for (const std::string& one : merge.gone()) session.output().line("- " + printable(one));
  session.output().line("~ " + merge.name() + ": " + std::to_string(merge.users()) + " users");
  return ExitCode::Done;
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
  const auto arguments = std::make_shared<DomainArguments>();
  Command group = top.group("domain", "Show and change the domains of the configuration");

  Command add =
      group.command("add", "Add a domain and print its identifier; an existing one stays unchanged",
                    "  tsl-address-map domain add example.com\n"
                    "With --json {\"domain\", \"id\", \"added\"}.\n",
                    Preparation::Database, withArguments(s_add, arguments));
  add.argument("DOMAIN", arguments->domain, "The domain");
  addDryRun(add, arguments->dryRun);

  Command remove = group.command(
      "remove", "Remove a domain with its mail users; exit 1 when there is none",
      "  tsl-address-map domain remove example.com\n"
      "Asks when the domain has users, aliases or masks; rows of tables stay. Prints nothing;"
      " with --json\n{\"domain\", \"removed\", \"users\"}.\n",
      Preparation::Database, withArguments(s_remove, arguments));
  remove.argument("DOMAIN", arguments->domain, "The domain");
  remove.flag("--yes", arguments->yes, "Remove it without asking");
  addDryRun(remove, arguments->dryRun);

  Command merge = group.command(
      "merge", "Join the spellings in which a domain is stored; exit 1 when there is none",
      "  tsl-address-map domain merge xn--bro-hoa.example --dry-run\n"
      "One domain is left, as it is in mail (xn--...), with the users of all spellings. Prints the"
      " spellings that go\n(-) and what is left (~); with --json {\"domain\", \"merged\","
      " \"users\"}. Users that differ in their kind are refused (65).\n",
      Preparation::Database, withArguments(s_merge, arguments));
  merge.argument("DOMAIN", arguments->domain, "The domain, in any spelling");
  addDryRun(merge, arguments->dryRun);

  group.command("list", "List the domains with their identifiers",
                "  tsl-address-map domain list\n"
                "One per line: DOMAIN<TAB>ID; with --json a list of {\"domain\", \"id\"}.\n",
                Preparation::Database, s_list);

  addDomainExportCommand(group);
  addDomainImportCommand(group);
}

}  // namespace Tessel::Tool
