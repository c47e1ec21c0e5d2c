// The commands on the mail users of a domain: add, remove, list.
#include <memory>
#include <string>

#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cmf/MailUser.h"
#include "cmf/TableQuery.h"
#include "cmf/Writer.h"
#include "tables/Configuration.h"
#include "tables/UserNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct Arguments {
  std::string address;
  std::string domain;
  std::string kind = "user";
  bool dryRun = false;
};

// True when `server`, the record of `domain`, is null, which is reported.
bool s_isMissing(const CMF::RefApsGwServer& server, const std::string& domain) {
  if (!server.isNull()) return false;
  say("no domain " + domain + " in the configuration in " + configurationDirectory() +
      "; add it with 'tsl-address-map domain add'");
  return true;
}

// The same for a domain that is only asked for.
bool s_isMissing(const std::string& domain) {
  return s_isMissing(findDomain(domain), domain);
}

ExitCode s_add(Session& session, const Arguments& arguments) {
  const CMF::MailUserKind kind = parseUserKind(arguments.kind);
  const EmailAddress address = parseAddress(arguments.address, false);
  const std::string fault = userFault(address);
  if (!fault.empty()) {
    throw Failure(ExitCode::BadData, "mail user " + address.address(), fault,
                  "use a name of letters, digits, dots and other characters that need no quotes");
  }
  if (s_isMissing(address.domain())) return ExitCode::NotFound;
  const CMF::Writer::UserResult result = withConfiguration([&] {
    CMF::Writer writer;
    const auto done = writer.addUser(address.domain(), address.local(), kind);
    // What is not committed has no effect.
    if (!arguments.dryRun) writer.commit();
    return done;
  });
  const std::string text = userResultText(result);
  if (!arguments.dryRun) session.detail(address.address() + ": " + text);
  const char* const sign = result == CMF::Writer::UserResult::Added ? "+ " : "~ ";
  answerChange(session,
               Json{{"address", address.address()}, {"kind", userKindText(kind)}, {"result", text}},
               result == CMF::Writer::UserResult::Unchanged ? "" : sign + address.address(),
               arguments.dryRun);
  return ExitCode::Done;
}

ExitCode s_remove(Session& session, const Arguments& arguments) {
  const EmailAddress address = parseAddress(arguments.address, false);
  bool removed = false;
  if (!s_isMissing(address.domain())) {
    removed = withConfiguration([&] {
      CMF::Writer writer;
      const bool present = writer.removeUser(address.domain(), address.local());
      if (!arguments.dryRun) writer.commit();
      return present;
    });
    if (!removed) say("no mail user " + address.address());
  }
  answerChange(session, Json{{"address", address.address()}, {"removed", removed}},
               removed ? "- " + address.address() : "", arguments.dryRun);
  return removed ? ExitCode::Done : ExitCode::NotFound;
}

void s_writeUsers(Session& session, const std::string& domain, std::uint32_t domainId) {
  ItemList list(session.output());
  withConfiguration([&] {
    const CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable> users(domainId);
    for (const __aps_mail_user& user : users) {
      const std::string address = printable(user.user_name).append("@").append(domain);
      const std::string kind = userKindText(user.kind);
      list.add(std::string(address).append("\t").append(kind), [&] {
        return Json{{"address", address}, {"kind", kind}};
      });
    }
  });
  list.end();
}

ExitCode s_list(Session& session, const Arguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  const CMF::RefApsGwServer server = findDomain(domain);
  if (s_isMissing(server, domain)) {
    if (session.isJson()) session.output().document(Json::array());
    return ExitCode::NotFound;
  }
  s_writeUsers(session, printable(server->domain()), server->domainId());
  return ExitCode::Done;
}

}  // namespace

void addUserCommands(Command& top) {
  const auto arguments = std::make_shared<Arguments>();
  Command group = top.group("user", "Show and change the mail users of the configuration");

  Command add = group.command(
      "add", "Add a mail user, or change its kind; exit 1 when the domain is unknown",
      "  tsl-address-map user add ann@example.com\n"
      "  tsl-address-map user add room1@example.com --kind shared\n"
      "Prints nothing; with --json {\"address\", \"kind\", \"result\"}, the result being added,"
      " changed or unchanged.\n",
      Preparation::Database, withArguments(s_add, arguments));
  add.argument("ADDRESS", arguments->address, "The address of the user");
  add.option("--kind", arguments->kind, "KIND", s_kindHelp);
  addDryRun(add, arguments->dryRun);

  Command remove = group.command("remove", "Remove a mail user; exit 1 when there is none",
                                 "  tsl-address-map user remove ann@example.com\n"
                                 "Prints nothing; with --json {\"address\", \"removed\"}.\n",
                                 Preparation::Database, withArguments(s_remove, arguments));
  remove.argument("ADDRESS", arguments->address, "The address of the user");
  addDryRun(remove, arguments->dryRun);

  Command list = group.command(
      "list", "List the mail users of a domain; exit 1 when the domain is unknown",
      "  tsl-address-map user list example.com\n"
      "One per line: ADDRESS<TAB>KIND; with --json a list of {\"address\", \"kind\"}.\n",
      Preparation::Database, withArguments(s_list, arguments));
  list.argument("DOMAIN", arguments->domain, "The domain");

  addUserImportCommand(group);
}

}  // namespace Tessel::Tool
