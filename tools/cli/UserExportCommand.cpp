// The commands `user export` and `domain export`.
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "base/Exception.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/TableQuery.h"
#include "files/ExportFile.h"
#include "tables/AddressKey.h"
#include "tables/Configuration.h"
#include "tables/UserNames.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

using Users = CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable>;

struct UserExportArguments {
  std::string path;
  std::string domain;
  bool hasDomains = false;
};

// What was written.
struct Counts {
  std::size_t domains = 0;
  std::size_t users = 0;
};

// The address of a stored user as the parsers read it, where there is such an address. Other
// programs may have stored a name that needs quotes; the import says what to do about it.
std::string s_addressOf(const std::string& user, const std::string& domain) {
  try {
    return EmailAddress::create(user, domain, false).address();
  } catch (const Exception& exception) {
    if (!isAddressFault(exception)) throw;
    return user + "@" + domain;
  }
}

// A line of the export. Throws Failure where the line would be two.
std::string s_line(std::string text) {
  if (text.find_first_of("\r\n") == std::string::npos) return text += '\n';
  throw Failure(ExitCode::BadData, "exporting the configuration",
                "'" + text + "' contains a line end", "nothing was exported; remove it first");
}

// The configuration as it is at one moment. One thread.
class Reader {
 public:
  explicit Reader(const UserExportArguments& arguments)
      : m_arguments(arguments),
        m_key(arguments.domain.empty() ? "" : comparisonDomain(parseDomain(arguments.domain))) {
    withConfiguration([this] {
      m_state.emplace();
      for (const CMF::ApsGwServerRecord& one : CMF::RefApsGwServerCache::instance(false)->domains())
        if (m_key.empty() || comparisonDomain(one.domain) == m_key) m_domains.push_back(one);
    });
  }

  [[nodiscard]] bool isEmpty() const { return m_domains.empty(); }

  // Calls `take` with each line; `progress` counts the users.
  template <class Take>
  Counts read(Progress& progress, Take take) const {
    progress.begin("exporting", "users");
    Counts counts;
    withConfiguration([&] {
      for (const CMF::ApsGwServerRecord& domain : m_domains) {
        ++counts.domains;
        if (m_arguments.hasDomains) take(s_line(domain.domain));
        const Users users(domain.domainId);
        for (const __aps_mail_user& user : users) {
          ++counts.users;
          progress.add(1);
          take(s_line(s_addressOf(user.user_name, domain.domain) + "\t" + userKindText(user.kind)));
        }
      }
    });
    return counts;
  }

 private:
  const UserExportArguments& m_arguments;
  std::string m_key;
  std::optional<Users::ReadLock> m_state;
  std::vector<CMF::ApsGwServerRecord> m_domains;
};

void s_exportToOutput(Session& session, const Reader& reader) {
  if (session.isJson()) {
    throw Failure(ExitCode::Usage, "--json", "the lines themselves go to standard output",
                  "name a FILE to export to");
  }
  Progress progress;
  progress.endForPager();
  // What is written there cannot be taken back, so all is read before.
  reader.read(progress, [](const std::string&) {});
  // The lines show the progress.
  if (isTerminal(Stream::Output)) progress.end();
  reader.read(progress, [&session](std::string line) {
    line.pop_back();
    session.output().line(line);
  });
}

void s_exportToFile(Session& session, const Reader& reader, const std::string& path) {
  ExportFile file(path);
  Progress progress;
  if (file.isDirect()) reader.read(progress, [](const std::string&) {});
  const Counts counts =
      reader.read(progress, [&file](const std::string& line) { file.write(line); });
  progress.end();
  file.finish();
  if (!session.isJson()) return;
  session.output().document(
      Json{{"file", printable(path)}, {"domains", counts.domains}, {"users", counts.users}});
}

ExitCode s_export(Session& session, const UserExportArguments& arguments) {
  const Reader reader(arguments);
  if (!arguments.domain.empty() && reader.isEmpty()) {
    say("no domain " + arguments.domain + " in the configuration in " + configurationDirectory());
    return ExitCode::NotFound;
  }
  if (arguments.path.empty() || arguments.path == "-") {
    s_exportToOutput(session, reader);
  } else {
    s_exportToFile(session, reader, arguments.path);
  }
  return ExitCode::Done;
}

void s_add(Command& group, bool hasDomains, const std::string& description,
           const std::string& help) {
  const auto arguments = std::make_shared<UserExportArguments>();
  arguments->hasDomains = hasDomains;
  Command command = group.command(
      "export", description,
      help +
          " A file is replaced as a\nwhole or not at all. With --json and FILE {\"file\","
          " \"domains\", \"users\"}.\n",
      Preparation::Database, withArguments(s_export, arguments));
  command.optionalArgument("FILE", arguments->path, "The file; none, or -, for standard output");
  command.option("--domain", arguments->domain, "DOMAIN",
                 "Only this domain, in any spelling; exit 1 when there is none");
}

}  // namespace

void addUserExportCommand(Command& group) {
  s_add(group, false, "Write the mail users to a file, or to standard output",
        "  tsl-address-map user export --domain example.com users.txt\n"
        "Each line is ADDRESS<TAB>KIND. 'user import' reads the file.");
}

void addDomainExportCommand(Command& group) {
  s_add(group, true, "Write the domains with their mail users to a file, or to standard output",
        "  tsl-address-map domain export domains.txt\n"
        "Each line is a domain, or one of its mail users: ADDRESS<TAB>KIND. 'domain import' reads"
        " the file.");
}

}  // namespace Tessel::Tool
