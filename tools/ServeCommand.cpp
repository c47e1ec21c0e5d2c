// The command `serve`: the lookup service for mail servers.
#include "ServeCommand.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/sizes.h"
#include "cli/Session.h"
#include "failure/Failure.h"
#include "serve/Service.h"
#include "serve/SettingsCheck.h"
#include "serve/base/ListenAddress.h"
#include "serve/base/Log.h"
#include "serve/base/MemoryBudget.h"
#include "serve/base/Settings.h"
#include "serve/base/SettingsText.h"
#include "tables/AddressKey.h"
#include "terminal/Say.h"

namespace Tessel::Serve {

namespace {

using std::chrono::milliseconds;
using Tool::ExitCode;
using Tool::Failure;

const Settings s_default;

// What answers and pages may take: less is no use, and by default a sixteenth of the memory.
constexpr std::size_t s_leastMemory = 1_MiB;
constexpr std::size_t s_shareOfMemory = 16;

// The texts of the options; --help shows those that are not empty here.
struct Arguments {
  std::vector<std::string> listen;
  std::string metrics;
  std::vector<std::string> only;
  std::string refresh = timeText(s_default.refresh);
  std::string stale = timeText(*s_default.stale);
  std::string maxLag;
  std::string snapshot;
  std::string countUse;
  std::string extension = extensionRuleText(s_default.extension);
  std::string delimiter = s_default.delimiter;
  std::string loginDomain;
  std::vector<std::string> trust;
  std::string policyText = s_default.policyText;
  std::string maxReply = std::to_string(s_default.maxReply);
  std::string page = std::to_string(s_default.page);
  std::string maxRequest = std::to_string(s_default.maxRequest);
  std::string maxMemory;
  std::string maxConnections = std::to_string(s_default.maxConnections);
  std::string workers = std::to_string(s_default.workers);
  std::string idleTimeout = timeText(s_default.idleTimeout);
  std::string requestTimeout = timeText(s_default.requestTimeout);
  std::string drainTimeout = timeText(s_default.drain);
  std::string logLevel = "info";
  bool localNames = false;
  bool catchAll = false;
  std::string maskUsers = "any";
  bool leaveOutDisabled = false;
  bool checkConfig = false;
};

ListenAddress s_metricsAddress(const std::string& text) {
  try {
    ListenAddress address = parseListenAddress("inet:" + text);
    if (address.kind == ListenAddress::Kind::Inet) return address;
  } catch (const Failure&) {
    // Reported in the words of this option below.
  }
  throw Failure(ExitCode::Usage, "--metrics", "'" + text + "' is not an address and a port",
                "write it as in --metrics 127.0.0.1:9321");
}

void s_checkSnapshot(const std::string& directory) {
  if (directory.empty() || std::filesystem::is_directory(directory)) return;
  throw Failure(ExitCode::Configuration, "--snapshot " + directory, "there is no such directory",
                "create it, writable for the user of the service only");
}

void s_checkDelimiter(const std::string& delimiter) {
  static constexpr std::string_view s_allowed = "+-_=#!%&'*/?^`{|}~$.";
  const bool isGood =
      !delimiter.empty() && delimiter.find_first_not_of(s_allowed) == std::string::npos;
  if (isGood) return;
  throw Failure(ExitCode::Usage, "--delimiter", "'" + delimiter + "' cannot be in a name",
                "give the value of the mail server's recipient_delimiter, as in --delimiter +");
}

void s_checkPolicyText(const std::string& text) {
  const bool isPrintable =
      std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
  // A reply of a mail server is a line of 512 bytes, and says more than that.
  constexpr std::size_t longest = 200;
  if (isPrintable && !text.empty() && text.size() <= longest) return;
  throw Failure(ExitCode::Usage, "--policy-text",
                "it must be one line of at most " + std::to_string(longest) +
                    " printable characters of ASCII",
                "as in --policy-text 'only members may write to {address}'");
}

bool s_knownMaskUsers(const std::string& who) {
  if (who == "any" || who == "known") return who == "known";
  throw Failure(ExitCode::Usage, "--mask-users", "'" + who + "' is neither any nor known",
                "use known for masks of names that somebody has, or any");
}

std::string s_loginDomain(const std::string& domain) {
  std::string key;
  if (domain.empty() || Tool::domainKey(domain, key)) return domain;
  throw Failure(ExitCode::Usage, "--login-domain", "'" + domain + "' is not a domain",
                "give the domain of logins without one, as in --login-domain example.com");
}

Settings s_settings(const Arguments& arguments) {
  const auto limit = [](const char* option, const std::string& text, std::size_t least,
                        std::size_t most) {
    return static_cast<std::size_t>(parseNumber(option, text, least, most));
  };
  Settings settings;
  for (const std::string& address : arguments.listen) {
    settings.listen.push_back(parseListenAddress(address));
  }
  if (!arguments.metrics.empty()) settings.metrics = s_metricsAddress(arguments.metrics);
  settings.tables = arguments.only;
  settings.refresh = parseTime("--refresh", arguments.refresh, milliseconds(10));
  settings.stale.reset();
  if (arguments.stale != "forever") {
    settings.stale = parseTime("--stale", arguments.stale, milliseconds(0));
  }
  if (!arguments.maxLag.empty()) {
    settings.maxLag = parseTime("--max-lag", arguments.maxLag, milliseconds(1000));
  }
  s_checkSnapshot(arguments.snapshot);
  settings.snapshot = arguments.snapshot;
  settings.countUse = arguments.countUse;
  settings.extension = parseExtensionRule("--extension", arguments.extension);
  s_checkDelimiter(arguments.delimiter);
  settings.delimiter = arguments.delimiter;
  settings.localNames = arguments.localNames;
  settings.leaveOutDisabled = arguments.leaveOutDisabled;
  settings.catchAll = arguments.catchAll;
  settings.knownMaskUsers = s_knownMaskUsers(arguments.maskUsers);
  settings.loginDomain = s_loginDomain(arguments.loginDomain);
  for (const std::string& network : arguments.trust) {
    settings.trust.push_back(parseNetwork("--trust", network));
  }
  s_checkPolicyText(arguments.policyText);
  settings.policyText = arguments.policyText;
  settings.maxReply = limit("--max-reply", arguments.maxReply, 1024, 100000000);
  settings.page = limit("--page", arguments.page, 2, 1000000);
  settings.maxRequest = limit("--max-request", arguments.maxRequest, 1024, 100000000);
  settings.maxMemory = arguments.maxMemory.empty()
                           ? std::max(s_leastMemory, availableMemory() / s_shareOfMemory)
                           : parseSize("--max-memory", arguments.maxMemory, s_leastMemory);
  settings.maxConnections = limit("--max-connections", arguments.maxConnections, 1, 1000000);
  settings.workers = static_cast<unsigned int>(limit("--workers", arguments.workers, 1, 256));
  settings.idleTimeout = parseTime("--idle-timeout", arguments.idleTimeout, milliseconds(1));
  settings.requestTimeout =
      parseTime("--request-timeout", arguments.requestTimeout, milliseconds(1));
  settings.drain = parseTime("--drain-timeout", arguments.drainTimeout, milliseconds(0));
  return settings;
}

ExitCode s_check(const Settings& settings) {
  ExitCode code = ExitCode::Done;
  for (const Failure& fault : faultsOf(settings)) {
    Tool::report(fault);
    code = fault.code();
  }
  return code;
}

ExitCode s_serve(Tool::Session& session, const Arguments& arguments) {
  if (!session.tableName().empty()) {
    throw Failure(ExitCode::Usage, "--table", "the service has all tables",
                  "mail servers name one as in alias.NAME; --only NAME leaves out the others");
  }
  const Settings settings = s_settings(arguments);
  const LogLevel level = parseLogLevel("--log-level", arguments.logLevel);
  if (arguments.checkConfig) return s_check(settings);
  session.prepare(Tool::Preparation::Database);
  Log log(level);
  serve(settings, log);
  return ExitCode::Done;
}

}  // namespace

void addServeCommand(Tool::Command& top) {
  const auto arguments = std::make_shared<Arguments>();
  Tool::Command serve = top.command(
      "serve", "Answer mail servers from the tables, until SIGTERM",
      "  tsl-address-map serve --listen unix:/run/tsl-address-map/socketmap,group=postfix\n"
      "  tsl-address-map serve --listen inet:127.0.0.1:7321 --metrics 127.0.0.1:9321\n"
      "  tsl-address-map --local serve --listen unix:/tmp/socketmap\n"
      "  tsl-address-map serve --listen policy:unix:/run/tsl-address-map/policy,group=postfix"
      " --trust 192.0.2.0/24\n"
      "  tsl-address-map serve --listen inet:127.0.0.1:7321 --count-use"
      " /var/lib/tsl-address-map/used\n"
      "  tsl-address-map serve --check-config --listen inet:127.0.0.1:7321 --stale 4h\n"
      "  postmap -q team@example.com socketmap:unix:/run/tsl-address-map/socketmap:alias\n"
      "The maps are alias, mask_public (private to public), mask_private (public to private),"
      " mailbox, domain\n"
      "and sender_login; alias.NAME and so on ask the tables that --table NAME would. SIGHUP "
      "rereads"
      " all tables.\n"
      "tsl-address-map-serve(8) has the details.\n",
      Tool::Preparation::Nothing, Tool::withArguments(s_serve, arguments));
  serve.optionList("--listen", arguments->listen, "ADDRESS",
                   "Where to listen: unix:/PATH[,mode=0660][,group=NAME] or inet:HOST:PORT;"
                   " unix-line: and inet-line: for the line protocol, policy:unix: and policy:inet:"
                   " for policies of Postfix; may be repeated");
  serve.option("--metrics", arguments->metrics, "HOST:PORT",
               "Where to answer /metrics, /health and /ready over HTTP");
  serve.optionList("--only", arguments->only, "NAME",
                   "Serve the tables of NAME and the base tables only; may be repeated");
  serve.option("--refresh", arguments->refresh, "TIME", "A change is seen within this time");
  serve.option("--stale", arguments->stale, "TIME",
               "How long to answer while the database is unavailable, or 'forever'");
  serve.option("--max-lag", arguments->maxLag, "TIME",
               "Ask a replica how far it is behind, and do not read one that is further behind");
  serve.option("--snapshot", arguments->snapshot, "DIR",
               "Keep the tables in this directory, for starts while the database is unavailable");
  serve.option("--count-use", arguments->countUse, "FILE",
               "Note in this file which aliases mail servers ask for, for 'alias list --unused'");
  serve.option("--extension", arguments->extension, "RULE",
               "The tag of user+tag: 'keep' it in the answer for user, 'drop' it, or 'off'");
  serve.option("--delimiter", arguments->delimiter, "TEXT",
               "Characters that an extension may begin with");
  serve.flag("--local-names", arguments->localNames,
             "Also answer with members without a domain, to which mail servers add their own");
  serve.flag("--catch-all", arguments->catchAll,
             "Let an alias *@DOMAIN have the mail of names of the domain that nobody has");
  serve.option("--mask-users", arguments->maskUsers, "WHO",
               "Answer whole-domain masks for 'any' name, or for 'known' private addresses only");
  serve.flag("--leave-out-disabled", arguments->leaveOutDisabled,
             "Leave disabled users out of the answers for aliases and masks");
  serve.option("--login-domain", arguments->loginDomain, "DOMAIN",
               "The domain of logins that have none, for policies and the map sender_login");
  serve.optionList("--trust", arguments->trust, "NETWORK",
                   "Policies: who sends from there counts as logged in where the rule is"
                   " 'authenticated'; may be repeated");
  serve.option("--policy-text", arguments->policyText, "TEXT",
               "Policies: the text for a refused sender; {address} is the recipient");
  serve.option("--max-reply", arguments->maxReply, "BYTES", "Longest reply");
  serve.option("--page", arguments->page, "COUNT", "Most addresses in a reply");
  serve.option("--max-request", arguments->maxRequest, "BYTES", "Longest request");
  serve.option(
      "--max-memory", arguments->maxMemory, "SIZE",
      "Memory for answers and pages that are kept, as 512M or 2G (a sixteenth of the memory"
      " of the host, or of the control group)");
  serve.option(
      "--max-connections", arguments->maxConnections, "COUNT",
      "Most connections at a time; a new one takes the place of the one unused for longest");
  serve.option("--workers", arguments->workers, "COUNT", "Threads that answer");
  serve.option("--idle-timeout", arguments->idleTimeout, "TIME",
               "Close a connection without requests");
  serve.option("--request-timeout", arguments->requestTimeout, "TIME",
               "Close a connection that sends half a request, or does not read its reply");
  serve.option("--drain-timeout", arguments->drainTimeout, "TIME",
               "At exit, longest time to answer what was asked");
  serve.option("--log-level", arguments->logLevel, "LEVEL",
               "error, warning, info or debug; only debug names addresses");
  serve.flag(
      "--check-config", arguments->checkConfig,
      "Only check the options, files and rights: nothing is changed, and neither the database"
      " nor a running service is asked");
}

}  // namespace Tessel::Serve
