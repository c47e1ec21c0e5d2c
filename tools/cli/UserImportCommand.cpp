// The commands `user import` and `domain import`.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Exception.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/Intent.h"
#include "cli/UserFile.h"
#include "cmf/Writer.h"
#include "tables/Configuration.h"
#include "tables/MailUsers.h"
#include "tables/UserNames.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct UserImportArguments {
  UserFile::Options options;
  std::string kind = "user";
  bool dryRun = false;
};

// A mail user that is added, or gets another kind.
struct Change {
  StoredUser user;  // As it is afterwards.
  std::optional<std::int32_t> former;
};

// What the import of a file does.
struct Plan {
  std::vector<std::string> domains;  // Those that are added.
  std::vector<Change> changes;
  std::size_t added = 0;
  std::size_t unchanged = 0;

  [[nodiscard]] std::size_t changed() const { return changes.size() - added; }
};

Plan s_plan(const UserFile& file, MailUsers& stored, Progress& progress) {
  progress.begin("comparing", "users", file.users());
  Plan plan;
  plan.unchanged = file.repeated();
  for (const auto& [domain, content] : file.domains()) {
    if (content.isNew) plan.domains.push_back(domain);
    for (const auto& [address, kind] : content.users) {
      progress.add(1);
      const std::vector<StoredUser> present = stored.find(address.address());
      if (present.empty()) {
        ++plan.added;
        plan.changes.push_back({{domain, address.local(), kind}, std::nullopt});
        continue;
      }
      // All that are stored, each in its spelling.
      const std::size_t before = plan.changes.size();
      for (const StoredUser& user : present) {
        if (user.kind != kind) plan.changes.push_back({{user.domain, user.name, kind}, user.kind});
      }
      if (plan.changes.size() == before) ++plan.unchanged;
    }
  }
  return plan;
}

std::vector<RowChange> s_recordOf(const Plan& plan) {
  std::vector<RowChange> changes;
  for (const std::string& domain : plan.domains) {
    changes.push_back({s_domainsName, domain, std::nullopt, "domain"});
  }
  for (const auto& [user, former] : plan.changes) {
    changes.push_back({s_usersName, user.address(),
                       former ? std::optional(userKindText(*former)) : std::nullopt,
                       userKindText(user.kind)});
  }
  return changes;
}

// Compares and writes in one transaction. A dry run writes nothing.
Plan s_carryOut(const UserFile& file, MailUsers& stored, bool dryRun, Progress& progress) {
  if (dryRun || file.domains().empty()) return s_plan(file, stored, progress);
  return withConfiguration([&] {
    // First, so that what is compared stays as it is.
    CMF::Writer writer;
    Plan plan = s_plan(file, stored, progress);
    progress.begin("writing", "users", plan.changes.size());
    for (const std::string& domain : plan.domains) writer.addDomain(domain);
    for (const auto& [user, former] : plan.changes) {
      writer.addUser(user.domain, user.name, static_cast<CMF::MailUserKind>(user.kind));
      progress.add(1);
    }
    Intent intent(s_recordOf(plan), Intent::Without::Warn);
    writer.commit();
    intent.done();
    return plan;
  });
}

Json s_rows(const Plan& plan) {
  Json rows = Json::array();
  for (const std::string& domain : plan.domains) {
    rows.push_back(Json{{"change", "+"}, {"domain", domain}});
  }
  for (const auto& [user, former] : plan.changes) {
    Json row{{"change", former ? "~" : "+"}, {"address", printable(user.address())}};
    row["kind"] = userKindText(user.kind);
    row["former"] = former ? Json(userKindText(*former)) : Json();
    rows.push_back(row);
  }
  return rows;
}

void s_show(Output& output, const Plan& plan) {
  for (const std::string& domain : plan.domains) output.line("+ " + domain);
  for (const auto& [user, former] : plan.changes) {
    std::string line = former ? "~ " : "+ ";
    line.append(printable(user.address())).append("\t");
    if (former) line.append(userKindText(*former)).append(" -> ");
    output.line(line.append(userKindText(user.kind)));
  }
}

void s_answer(Session& session, const UserImportArguments& arguments, const UserFile& file,
              const Plan& plan) {
  const bool hasDomains = arguments.options.hasDomains;
  if (session.isJson()) {
    Json document = hasDomains ? Json{{"domains", plan.domains.size()}}
                               : Json{{"kind", userKindText(arguments.options.kind)}};
    document["added"] = plan.added;
    document["changed"] = plan.changed();
    document["unchanged"] = plan.unchanged;
    if (!hasDomains) document["skipped"] = file.system();
    if (arguments.dryRun) document["rows"] = s_rows(plan);
    return answerChange(session, document, "", arguments.dryRun);
  }
  if (arguments.dryRun) s_show(session.output(), plan);
  std::string counts;
  if (hasDomains) counts = std::to_string(plan.domains.size()) + " domains added; users: ";
  counts.append(std::to_string(plan.added)).append(" added, ");
  counts.append(std::to_string(plan.changed())).append(" changed, ");
  session.output().line(counts.append(std::to_string(plan.unchanged)).append(" unchanged"));
}

ExitCode s_import(Session& session, const UserImportArguments& given) {
  UserImportArguments arguments = given;
  arguments.options.kind = parseUserKind(given.kind);
  Progress progress;
  MailUsers stored;
  const UserFile file(arguments.options, stored, progress);
  if (file.system() != 0) {
    say("left out " + std::to_string(file.system()) +
        " system accounts, whose numbers are below 1000 or 65534; --all takes them too");
  }
  const Plan plan = s_carryOut(file, stored, arguments.dryRun, progress);
  progress.end();
  s_answer(session, arguments, file, plan);
  return ExitCode::Done;
}

}  // namespace

void addUserImportCommand(Command& group) {
  const auto arguments = std::make_shared<UserImportArguments>();
  Command import = group.command(
      "import", "Add the mail users of a file, all or none",
      "  tsl-address-map user import users.txt\n"
      "  getent passwd | tsl-address-map user import - --domain example.com --dry-run\n"
      "Takes one address per line, alone or with its kind as 'user export' writes it, or the lines"
      " of a password\nfile. The whole file is checked first: bad lines are reported as FILE:LINE:"
      " reason, nothing is written then,\nand the exit status is 65. Existing users get the kind."
      " Prints how many were added, changed and unchanged;\nwith --json {\"kind\", \"added\","
      " \"changed\", \"unchanged\", \"skipped\"}, with --dry-run also \"rows\".\n",
      Preparation::Database, withArguments(s_import, arguments));
  import.argument("FILE", arguments->options.path, "The file, or - for standard input");
  import.option("--domain", arguments->options.domain, "DOMAIN",
                "The domain of the names of a password file");
  import.option("--kind", arguments->kind, "KIND",
                "For lines without a kind: " + std::string(s_kindHelp));
  import.flag("--all", arguments->options.all,
              "Take system accounts of a password file too: numbers below 1000, and 65534");
  addDryRun(import, arguments->dryRun);
}

void addDomainImportCommand(Command& group) {
  const auto arguments = std::make_shared<UserImportArguments>();
  arguments->options.hasDomains = true;
  Command import = group.command(
      "import", "Add the domains and mail users of a file, all or none",
      "  tsl-address-map domain import domains.txt --dry-run\n"
      "  tsl-address-map domain import --cmf /var/lib/tsl/new domains.txt\n"
      "Takes what 'domain export' writes: domains, and addresses with a tab and their kinds. What"
      " the file does not\nmention stays. The whole file is checked first: bad lines are reported"
      " as FILE:LINE: reason, nothing is written\nthen, and the exit status is 65. Prints how many"
      " domains and users were added, changed and unchanged; with\n--json {\"domains\","
      " \"added\", \"changed\", \"unchanged\"}, with --dry-run also \"rows\".\n",
      Preparation::Database, withArguments(s_import, arguments));
  import.argument("FILE", arguments->options.path, "The file, or - for standard input");
  addDryRun(import, arguments->dryRun);
}

}  // namespace Tessel::Tool
