// The commands on the mail users of a domain: add, remove, list.
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "check/Findings.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/Intent.h"
#include "cmf/MailUser.h"
#include "cmf/TableQuery.h"
#include "cmf/Writer.h"
#include "database/QueryTableNames.h"
#include "tables/AddressKey.h"
#include "tables/AddressUse.h"
#include "tables/Configuration.h"
#include "tables/MailUsers.h"
#include "tables/TableNames.h"
#include "tables/UserNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct UserArguments {
  std::string address;
  std::string domain;
  std::string kind = "user";
  bool dryRun = false;
};

// The spellings in which the configuration has `domain`; reports that there are none, or several.
// Throws Failure when the configuration cannot be read.
std::vector<StoredDomain> s_spellingsOf(const std::string& domain, const MailUsers& users) {
  users.require();
  std::vector<StoredDomain> spellings = users.spellingsOf(domain);
  if (spellings.empty()) {
    say("no domain " + domain + " in the configuration in " + configurationDirectory() +
        "; add it with 'tsl-address-map domain add'");
  } else if (spellings.size() > 1) {
    say("warning: domain " + domain + " is stored in " + std::to_string(spellings.size()) +
        " spellings; join them with 'tsl-address-map domain merge " + spellings.front().name + "'");
  }
  return spellings;
}

// The kind of a user who is not there yet.
constexpr std::int32_t s_noKind = -1;

// The mail user `address` as it is stored, in all spellings; as it would be in the first of
// `spellings` when it is not there yet.
std::vector<StoredUser> s_usersToWrite(const EmailAddress& address, MailUsers& users,
                                       const std::vector<StoredDomain>& spellings) {
  std::vector<StoredUser> found = users.find(address.address());
  if (found.empty()) found.push_back({spellings.front().name, address.local(), s_noKind});
  return found;
}

// The address for messages: as it was given, unless it is stored in another spelling.
std::string s_shown(const EmailAddress& address, const StoredUser& stored) {
  const std::string text = stored.address();
  return stringCompareNoCase(text, address.address(), 0) ? address.address() : text;
}

// Shows what becomes of `users`, spellings of the mail user `address`, which may be of several
// kinds.
void s_showAdd(Output& output, const std::string& address, const std::vector<StoredUser>& users,
               CMF::MailUserKind kind) {
  const auto number = static_cast<std::int32_t>(kind);
  const auto other = std::find_if(users.begin(), users.end(),
                                  [&](const StoredUser& user) { return user.kind != number; });
  if (other == users.end()) return;
  const bool isNew = other->kind == s_noKind;
  output.line((isNew ? "+ " : "~ ") + printable(address) +
              (isNew ? "" : "\t" + userKindText(other->kind) + " -> " + userKindText(number)));
}

ExitCode s_add(Session& session, const UserArguments& arguments) {
  const CMF::MailUserKind kind = parseUserKind(arguments.kind);
  const EmailAddress address = parseAddress(arguments.address, false);
  const std::string fault = userFault(address);
  if (!fault.empty()) {
    throw Failure(ExitCode::BadData, "mail user " + address.address(), fault,
                  "use a name of letters, digits, dots and other characters that need no quotes");
  }
  MailUsers users;
  const std::vector<StoredDomain> spellings = s_spellingsOf(address.domain(), users);
  if (spellings.empty()) return ExitCode::NotFound;
  const std::vector<StoredUser> written = s_usersToWrite(address, users, spellings);
  const CMF::Writer::UserResult result = withConfiguration([&] {
    CMF::Writer writer;
    auto done = CMF::Writer::UserResult::Unchanged;
    for (const StoredUser& user : written) {
      const auto one = writer.addUser(user.domain, user.name, kind);
      if (one != CMF::Writer::UserResult::Unchanged) done = one;
    }
    // What is not committed has no effect.
    if (arguments.dryRun) return done;
    std::vector<RowChange> changes;
    for (const StoredUser& user : written) {
      const auto before =
          user.kind == s_noKind ? std::nullopt : std::optional(userKindText(user.kind));
      const std::string after = userKindText(static_cast<std::int32_t>(kind));
      if (before != after) changes.push_back({s_usersName, user.address(), before, after});
    }
    Intent intent(std::move(changes), Intent::Without::Warn);
    writer.commit();
    intent.done();
    return done;
  });
  const std::string text = userResultText(result);
  const std::string stored = s_shown(address, written.front());
  if (!arguments.dryRun) session.detail(stored + ": " + text);
  if (arguments.dryRun && !session.isJson()) s_showAdd(session.output(), stored, written, kind);
  answerChange(session, Json{{"address", stored}, {"kind", userKindText(kind)}, {"result", text}},
               "", arguments.dryRun);
  return ExitCode::Done;
}

// Says which aliases of `table` have `member`.
void s_tellAliases(const std::string& table, const std::string& member,
                   const std::vector<std::string>& aliases) {
  const std::string command = commandOn(table, "alias drop --everywhere " + shellWord(member));
  say("warning: in table " + table + ", " + member + " is a member of " + listed(aliases) +
      (command.empty() ? "" : "; '" + command + "' removes it"));
}

void s_tellMask(const std::string& table, const AddressUse& use) {
  const std::string command =
      commandOn(table, "mask remove " + shellWord(use.key) + " " + shellWord(use.value));
  say("warning: in table " + table + ", " + use.value + " is the public address of " + use.key +
      (command.empty() ? "" : "; '" + command + "' removes it"));
}

// The rows of all tables that lead to mail user `address`, also as `document` has them.
class UsesReport {
 public:
  explicit UsesReport(Json& document) : m_document(document) {
    m_document["aliases"] = Json::array();
    m_document["masks"] = Json::array();
  }

  // Says what leads to `address`. What cannot be read is a warning: the user is gone by then.
  void tell(const std::string& address) {
    try {
      Database::Connection connection{std::string(s_database)};
      const auto tables = Database::QueryTableNames(connection).names();
      for (const std::string& table : tables) {
        const auto known = readTableName(table);
        if (known) tell(address, connection, table, known->kind);
      }
    } catch (const Exception& exception) {
      say("warning: which aliases and masks lead to " + address +
          " is unknown: " + failureOf(exception, "").why());
      m_document["aliases"] = m_document["masks"] = nullptr;
    }
  }

 private:
  void tell(const std::string& address, Database::Connection& connection, const std::string& table,
            TableKind kind) {
    std::map<std::string, std::vector<std::string>> aliases;  // By the member.
    for (const AddressUse& use : usesOf(address, connection, table, kind)) {
      const std::string key = printable(use.key);
      const std::string value = printable(use.value);
      if (kind == TableKind::Alias) {
        // One spelling drops them all.
        const bool isSame = comparisonKey(use.value) == comparisonKey(address);
        aliases[isSame ? address : use.value].push_back(use.key);
        m_document["aliases"].push_back(Json{{"table", table}, {"alias", key}, {"member", value}});
      } else {
        s_tellMask(table, use);
        m_document["masks"].push_back(Json{{"table", table}, {"private", key}, {"public", value}});
      }
    }
    for (const auto& [member, names] : aliases) s_tellAliases(table, member, names);
  }

  Json& m_document;
};

ExitCode s_remove(Session& session, const UserArguments& arguments) {
  const EmailAddress address = parseAddress(arguments.address, false);
  MailUsers users;
  std::vector<StoredUser> found;
  if (!s_spellingsOf(address.domain(), users).empty()) {
    found = users.find(address.address());
    if (found.empty()) say("no mail user " + address.address());
  }
  if (!found.empty() && !arguments.dryRun) {
    withConfiguration([&] {
      CMF::Writer writer;
      std::vector<RowChange> changes;
      for (const StoredUser& user : found) {
        writer.removeUser(user.domain, user.name);
        changes.push_back({s_usersName, user.address(), userKindText(user.kind), std::nullopt});
      }
      Intent intent(std::move(changes), Intent::Without::Warn);
      writer.commit();
      intent.done();
    });
  }
  const bool removed = !found.empty();
  const std::string stored = removed ? s_shown(address, found.front()) : address.address();
  Json document{{"address", stored}, {"removed", removed}};
  UsesReport uses(document);
  if (removed) uses.tell(stored);
  answerChange(session, document, removed ? "- " + stored : "", arguments.dryRun);
  return removed ? ExitCode::Done : ExitCode::NotFound;
}

void s_writeUsers(const StoredDomain& domain, ItemList& list) {
  withConfiguration([&] {
    const CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable> users(domain.id);
    for (const __aps_mail_user& user : users) {
      const std::string address =
          printable(user.user_name).append("@").append(printable(domain.name));
      const std::string kind = userKindText(user.kind);
      list.add(std::string(address).append("\t").append(kind), [&] {
        return Json{{"address", address}, {"kind", kind}};
      });
    }
  });
}

ExitCode s_list(Session& session, const UserArguments& arguments) {
  const std::string domain = parseDomain(arguments.domain);
  const std::vector<StoredDomain> spellings = s_spellingsOf(domain, MailUsers());
  ItemList list(session.output());
  for (const StoredDomain& one : spellings) s_writeUsers(one, list);
  list.end();
  return spellings.empty() ? ExitCode::NotFound : ExitCode::Done;
}

}  // namespace

void addUserCommands(Command& top) {
  const auto arguments = std::make_shared<UserArguments>();
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
                                 "Prints nothing; says on standard error which aliases and masks of"
                                 " all tables still lead to\nthe user. With --json {\"address\","
                                 " \"removed\", \"aliases\", \"masks\"}.\n",
                                 Preparation::Database, withArguments(s_remove, arguments));
  remove.argument("ADDRESS", arguments->address, "The address of the user");
  addDryRun(remove, arguments->dryRun);

  Command list = group.command(
      "list", "List the mail users of a domain; exit 1 when the domain is unknown",
      "  tsl-address-map user list example.com\n"
      "One per line: ADDRESS<TAB>KIND; with --json a list of {\"address\", \"kind\"}.\n",
      Preparation::Database, withArguments(s_list, arguments));
  list.argument("DOMAIN", arguments->domain, "The domain");

  addUserExportCommand(group);
  addUserImportCommand(group);
}

}  // namespace Tessel::Tool
