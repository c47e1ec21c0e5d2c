// The command `answer`: what a mail server does with mail to an address.
#include "AnswerCommand.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/Session.h"
#include "failure/Failure.h"
#include "serve/answer/DatabaseLookup.h"
#include "serve/answer/MailPath.h"
#include "serve/base/Settings.h"
#include "serve/base/SettingsText.h"
#include "serve/socket/SocketmapClient.h"
#include "terminal/Say.h"

namespace Tessel::Serve {

namespace {

using Tool::ExitCode;
using Tool::Failure;
using Tool::Json;
using Tool::printable;

const Settings s_default;

// The login of who has not logged in.
constexpr char s_nobody[] = "-";

struct Arguments {
  std::vector<std::string> addresses;
  std::string from;
  std::string extension = extensionRuleText(s_default.extension);
  std::string delimiter = s_default.delimiter;
  bool localNames = false;
  bool leaveOutDisabled = false;
  std::string login;
  std::string loginDomain;
};

// Whether somebody may write to an address, and who may send as it.
struct Permission {
  std::string action;
  std::string logins;
};

Settings s_settings(const Arguments& arguments) {
  Settings settings;
  settings.extension = parseExtensionRule("--extension", arguments.extension);
  settings.delimiter = arguments.delimiter;
  settings.localNames = arguments.localNames;
  settings.leaveOutDisabled = arguments.leaveOutDisabled;
  settings.loginDomain = arguments.loginDomain;
  // Without pages: nobody waits for a reply that is too long.
  settings.page = std::numeric_limits<std::size_t>::max();
  settings.maxReply = std::numeric_limits<std::size_t>::max();
  return settings;
}

ListenAddress s_service(const std::string& text) {
  try {
    return parseListenAddress(text);
  } catch (const Failure& failure) {
    throw Failure(
        ExitCode::Usage, "--from '" + text + "'", failure.why(),
        "name a socket of the service as its --listen does, unix:/PATH or inet:HOST:PORT");
  }
}

ExitCode s_codeOf(Fate fate) {
  if (fate == Fate::Waits) return ExitCode::Unavailable;
  return fate == Fate::Refused ? ExitCode::NotFound : ExitCode::Done;
}

ExitCode s_codeOf(const Permission& permission) {
  if (permission.action.starts_with("DEFER")) return ExitCode::Unavailable;
  return permission.action.starts_with("REJECT") ? ExitCode::NotFound : ExitCode::Done;
}

Json s_orNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Permission s_permissionOf(DatabaseLookup& database, const std::string& address,
                          const std::string& table, const std::string& login) {
  const std::string map = table.empty() ? "sender_login" : "sender_login." + table;
  return {database.action(address, login == s_nobody ? "" : login), database.ask(map, address)};
}

void s_write(Tool::Output& output, const std::string& address, const Permission& permission) {
  output.line("policy\t" + printable(address) + "\t" + printable(permission.action));
  const std::size_t end = permission.logins.find_last_not_of(' ');
  output.line("sender_login\t" + printable(address) + "\t" +
              printable(permission.logins.substr(0, end + 1)));
}

Json s_jsonOf(const std::string& address, const MailPath& path,
              const std::optional<Permission>& permission) {
  Json steps = Json::array();
  for (const MailStep& step : path.steps) {
    const std::size_t blank = step.reply.find(' ');
    steps.push_back(Json{{"map", step.map},
                         {"key", step.key},
                         {"result", step.reply.substr(0, blank)},
                         {"data", step.reply.substr(blank + 1)},
                         {"base", s_orNull(step.base)}});
  }
  Json recipients = Json::array();
  for (const MailRecipient& recipient : path.recipients) {
    recipients.push_back(Json{{"address", recipient.address},
                              {"fate", textOf(recipient.fate)},
                              {"base", s_orNull(recipient.base)}});
  }
  Json json{{"address", address},
            {"fate", textOf(path.fate)},
            {"steps", steps},
            {"recipients", recipients}};
  if (!permission) return json;
  json["policy"] = permission->action;
  json["sender_login"] = permission->logins;
  return json;
}

// The step from an address to the one without its tag, if there is one.
void s_writeTag(Tool::Output& output, const std::string& address, const std::string& base,
                const char* what) {
  if (base.empty()) return;
  const std::string text = printable(address);
  output.line("tag\t" + text + "\tno " + what + " " + text + ", asked for " + printable(base));
}

void s_write(Tool::Output& output, const MailPath& path) {
  for (const MailStep& step : path.steps) {
    const std::size_t end = step.reply.find_last_not_of(' ');
    output.line(printable(step.map) + "\t" + printable(step.key) + "\t" +
                printable(step.reply.substr(0, end + 1)));
    s_writeTag(output, step.key, step.base, "row of");
  }
  for (const MailRecipient& recipient : path.recipients) {
    s_writeTag(output, recipient.address, recipient.base, "user");
    output.line("recipient\t" + printable(recipient.address) + "\t" + textOf(recipient.fate));
  }
}

// The database, when it can be asked; with `--from`, for comparison only.
std::unique_ptr<DatabaseLookup> s_database(const Settings& settings, const std::string& table,
                                           bool isNeeded) {
  try {
    auto lookup = std::make_unique<DatabaseLookup>(settings, table);
    const std::string& fault = lookup->configurationFault();
    if (!fault.empty()) Tool::say("warning: the configuration cannot be read: " + fault);
    return lookup;
  } catch (const std::exception& exception) {
    if (isNeeded) throw;
    const Failure failure = Tool::failureOf(exception, "the database");
    Tool::say("warning: the answers of the service were not compared with the database: " +
              failure.why());
    return nullptr;
  }
}

void s_compare(const std::string& address, const MailPath& path, DatabaseLookup& database,
               const std::string& table, const std::string& delimiters) {
  const auto ask = [&](const std::string& map, const std::string& key) {
    return database.ask(map, key);
  };
  const MailPath now = mailPathOf(address, table, delimiters, ask);
  // Pages are steps that the database has no need of.
  if (now.recipients == path.recipients && now.fate == path.fate) return;
  Tool::say("warning: the service answers for " + address +
            " otherwise than the database: its rows are older, or its options differ from those"
            " that were given here");
  for (const MailRecipient& recipient : now.recipients) {
    Tool::say("  by the database: " + recipient.address + ", " + textOf(recipient.fate));
  }
}

ExitCode s_answer(Tool::Session& session, const Arguments& arguments) {
  const Settings settings = s_settings(arguments);
  const bool hasTags = settings.extension != ExtensionRule::Off;
  const std::string delimiters = hasTags ? settings.delimiter : "";
  const std::string table = session.tableName();
  if (!arguments.login.empty() && !arguments.from.empty()) {
    throw Failure(ExitCode::Usage, "--as", "a service says only to mail servers who may write",
                  "leave out --from: the database has the rules");
  }
  std::optional<SocketmapClient> service;
  if (!arguments.from.empty()) service.emplace(s_service(arguments.from));
  const auto database = s_database(settings, table, !service);
  const AskMap ask = [&](const std::string& map, const std::string& key) {
    return service ? service->ask(map, key) : database->ask(map, key);
  };
  Tool::ItemList list(session.output());
  ExitCode worst = ExitCode::Done;
  const ExitCode read = Tool::forEachAddress(arguments.addresses, [&](const EmailAddress& address) {
    const MailPath path = mailPathOf(address.address(), table, delimiters, ask);
    worst = std::max(worst, s_codeOf(path.fate));
    std::optional<Permission> permission;
    if (!arguments.login.empty()) {
      permission = s_permissionOf(*database, address.address(), table, arguments.login);
      worst = std::max(worst, s_codeOf(*permission));
    }
    if (service && database != nullptr) {
      s_compare(address.address(), path, *database, table, delimiters);
    }
    if (session.isJson()) {
      return list.add("", [&] { return s_jsonOf(address.address(), path, permission); });
    }
    s_write(session.output(), path);
    if (permission) s_write(session.output(), address.address(), *permission);
  });
  list.end();
  return std::max(read, worst);
}

}  // namespace

void addAnswerCommand(Tool::Command& top) {
  const auto arguments = std::make_shared<Arguments>();
  Tool::Command answer = top.command(
      "answer", "Show what a mail server does with mail to an address, step by step",
      "  tsl-address-map answer team+news@example.com\n"
      "  tsl-address-map answer ann@example.com --from unix:/run/tsl-address-map/socketmap\n"
      "  tsl-address-map answer - --json <addresses.txt\n"
      "  tsl-address-map answer team@example.com --as ann@example.com\n"
      "One line per lookup, as the service answers it: MAP<TAB>KEY<TAB>REPLY; then"
      " recipient<TAB>ADDRESS<TAB>FATE, the\nfate being mailbox, elsewhere (another host), refused"
      " (no such user) or waits (a lookup fails now). A line tag\nsays that user+tag was not found,"
      " and user was. With --json a list of {\"address\", \"fate\", \"steps\",\n\"recipients\"}."
      " Exit 1 when a recipient is refused, 75 when mail waits.\nThe tables are read whole: from a "
      "running service, --from is faster and shows what"
      " it knows.\n",
      Tool::Preparation::Database, Tool::withArguments(s_answer, arguments));
  answer.arguments("ADDRESS", arguments->addresses, "An address, or - for standard input");
  answer.option("--from", arguments->from, "SOCKET",
                "Ask the service that listens here, unix:/PATH or inet:HOST:PORT, and report where"
                " the database differs");
  answer.option("--as", arguments->login, "LOGIN",
                "Also show whether this login may write to the address, or - for who has not"
                " logged in, and who may send as the address");
  answer.option("--login-domain", arguments->loginDomain, "DOMAIN", "As the service has it");
  answer.option("--extension", arguments->extension, "RULE",
                "As the service has it: 'keep' the tag of user+tag, 'drop' it, or 'off'");
  answer.option("--delimiter", arguments->delimiter, "TEXT", "As the service has it");
  answer.flag("--local-names", arguments->localNames, "As the service has it");
  answer.flag("--leave-out-disabled", arguments->leaveOutDisabled, "As the service has it");
}

}  // namespace Tessel::Serve
