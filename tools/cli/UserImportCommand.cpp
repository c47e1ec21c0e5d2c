// The command `user import`.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Exception.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "files/Lines.h"
#include "files/TableFile.h"
#include "tables/Configuration.h"
#include "tables/MailUsers.h"
#include "tables/UserNames.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Accounts of people begin here; 65534 is the user nobody.
constexpr std::uint32_t s_firstAccount = 1000;
constexpr std::uint32_t s_nobody = 65534;
constexpr std::size_t s_passwdFields = 7;
// Enough to find the first line that is not blank.
constexpr std::size_t s_linesAhead = 100;

struct Arguments {
  std::string file;
  std::string domain;
  std::string kind = "user";
  bool all = false;
  bool dryRun = false;
};

// The users of one domain in the order of their names.
using Users = std::map<std::string, std::vector<EmailAddress>>;

struct UserFile {
  Users users;             // By domain.
  std::size_t system = 0;  // Accounts that were left out.
};

struct Counts {
  std::size_t added = 0;
  std::size_t changed = 0;
  std::size_t unchanged = 0;

  void count(CMF::Writer::UserResult result) {
    added += result == CMF::Writer::UserResult::Added ? 1 : 0;
    changed += result == CMF::Writer::UserResult::Changed ? 1 : 0;
    unchanged += result == CMF::Writer::UserResult::Unchanged ? 1 : 0;
  }
};

// True when the first line that is not blank has fields. The colons of an address are in quotes or
// in a literal.
bool s_isPasswd(Lines& lines) {
  for (const std::string& line : lines.ahead(s_linesAhead)) {
    if (!isBlank(line)) return endOfKey(line) != std::string_view::npos;
  }
  return false;
}

// Splits a line of the password file. False when it has another number of fields.
bool s_split(std::string_view line, std::array<std::string_view, s_passwdFields>& fields) {
  for (std::size_t i = 0; i < s_passwdFields; ++i) {
    const std::size_t end = line.find(':');
    const bool isLast = i + 1 == s_passwdFields;
    if (isLast != (end == std::string_view::npos)) return false;
    fields[i] = line.substr(0, end);
    if (!isLast) line.remove_prefix(end + 1);
  }
  return true;
}

class Reader {
 public:
  Reader(const Session& session, const Arguments& arguments)
      : m_session(session),
        m_arguments(arguments),
        m_name(arguments.file == "-" ? "standard input" : arguments.file),
        m_domain(arguments.domain.empty() ? "" : parseDomain(arguments.domain)),
        m_faults(m_name) {}

  // Reads and checks the whole file; `progress` counts its lines. Throws Failure.
  UserFile read(Progress& progress) {
    progress.beginReading(m_arguments.file);
    Lines lines(m_arguments.file, m_name);
    const bool passwd = s_isPasswd(lines);
    requireDomain(passwd);
    std::string_view line;
    while (lines.next(line)) {
      progress.set(lines.number());
      if (isBlank(line)) continue;
      const std::string fault = passwd ? addAccount(line) : addAddress(line);
      if (!fault.empty()) m_faults.add(lines.number(), fault);
    }
    m_faults.refuse("it has bad lines");
    // The order in which the configuration takes them fastest.
    for (auto& [domain, users] : m_file.users) std::sort(users.begin(), users.end());
    return std::move(m_file);
  }

 private:
  void requireDomain(bool passwd) const {
    if (passwd == !m_domain.empty()) return;
    throw Failure(ExitCode::Usage, m_name,
                  passwd ? "it looks like a password file, whose names have no domain"
                         : "it has addresses, and --domain is for a password file",
                  passwd ? "give --domain DOMAIN" : "leave --domain out");
  }

  // Both return what is wrong, or empty text.
  std::string addAccount(std::string_view line) {
    std::array<std::string_view, s_passwdFields> fields;
    if (!s_split(line, fields)) return "it does not have the seven fields of a password file";
    std::uint32_t id = 0;
    const auto [end, error] =
        std::from_chars(fields[2].data(), fields[2].data() + fields[2].size(), id);
    const bool isNumber = error == std::errc() && end == fields[2].data() + fields[2].size();
    if (!isNumber) return "the user number '" + std::string(fields[2]) + "' is not a number";
    if (!m_arguments.all && (id < s_firstAccount || id == s_nobody)) {
      ++m_file.system;
      return "";
    }
    return addAddress(std::string(fields[0]).append("@").append(m_domain));
  }

  std::string addAddress(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) return "it contains a NUL character";
    try {
      EmailAddress address = EmailAddress::rfc5321Parse(text, false);
      if (address.isNull()) return "the address is empty";
      std::string fault = userFault(address);
      if (fault.empty()) fault = add(std::move(address));
      return fault;
    } catch (const Exception& exception) {
      if (!isAddressFault(exception)) throw;
      return "bad address: " + reasonOf(exception);
    }
  }

  std::string add(EmailAddress address) {
    const std::string domain = address.domain();
    std::vector<EmailAddress>* const users = usersOf(domain);
    if (users == nullptr) return "there is no domain " + domain + " in the configuration";
    users->push_back(std::move(address));
    return "";
  }

  // The users of `domain`, or null when the configuration does not have it.
  std::vector<EmailAddress>* usersOf(const std::string& domain) {
    const auto known = m_known.find(domain);
    if (known != m_known.end()) return known->second;
    m_configuration.require();
    const std::vector<StoredDomain> spellings = m_configuration.spellingsOf(domain);
    // Spellings of one domain share their users.
    std::vector<EmailAddress>* const users =
        spellings.empty() ? nullptr : &m_file.users[spellings.front().name];
    m_known[domain] = users;
    return users;
  }

  const Session& m_session;
  const Arguments& m_arguments;
  std::string m_name;
  std::string m_domain;
  LineFaults m_faults;
  UserFile m_file;
  const MailUsers m_configuration;
  std::map<std::string, std::vector<EmailAddress>*> m_known;  // By the spelling of the domain.
};

Counts s_write(const Users& users, CMF::MailUserKind kind, bool dryRun, Progress& progress) {
  std::size_t all = 0;
  for (const auto& [domain, addresses] : users) all += addresses.size();
  progress.begin("writing", "users", all);
  Counts counts;
  MailUsers stored;
  withConfiguration([&] {
    CMF::Writer writer;
    for (const auto& [domain, addresses] : users) {
      for (const EmailAddress& address : addresses) {
        // One that is stored in another spelling stays in that.
        const std::vector<StoredUser> present = stored.find(address.address());
        const bool isNew = present.empty();
        counts.count(isNew ? writer.addUser(domain, address.local(), kind)
                           : writer.addUser(present[0].domain, present[0].name, kind));
        progress.add(1);
      }
    }
    // What is not committed has no effect.
    if (!dryRun) writer.commit();
  });
  return counts;
}

ExitCode s_import(Session& session, const Arguments& arguments) {
  const CMF::MailUserKind kind = parseUserKind(arguments.kind);
  Progress progress;
  const UserFile file = Reader(session, arguments).read(progress);
  if (file.system != 0) {
    say("left out " + std::to_string(file.system) +
        " system accounts, whose numbers are below 1000 or 65534; --all takes them too");
  }
  const Counts counts =
      file.users.empty() ? Counts() : s_write(file.users, kind, arguments.dryRun, progress);
  progress.end();
  answerChange(session,
               Json{{"kind", userKindText(kind)},
                    {"added", counts.added},
                    {"changed", counts.changed},
                    {"unchanged", counts.unchanged},
                    {"skipped", file.system}},
               "", arguments.dryRun);
  if (session.isJson()) return ExitCode::Done;
  session.output().line(std::to_string(counts.added) + " added, " + std::to_string(counts.changed) +
                        " changed, " + std::to_string(counts.unchanged) + " unchanged");
  return ExitCode::Done;
}

}  // namespace

void addUserImportCommand(Command& group) {
  const auto arguments = std::make_shared<Arguments>();
  Command import = group.command(
      "import", "Add the mail users of a file, all or none",
      "  tsl-address-map user import users.txt\n"
      "  getent passwd | tsl-address-map user import - --domain example.com --dry-run\n"
      "Takes one address per line, or the lines of a password file. The whole file is checked"
      " first: bad lines are\nreported as FILE:LINE: reason, nothing is written then, and the exit"
      " status is 65. Existing users get the\nkind. Prints how many were added, changed and"
      " unchanged; with --json {\"kind\", \"added\", \"changed\",\n\"unchanged\","
      " \"skipped\"}.\n",
      Preparation::Database, withArguments(s_import, arguments));
  import.argument("FILE", arguments->file, "The file, or - for standard input");
  import.option("--domain", arguments->domain, "DOMAIN",
                "The domain of the names of a password file");
  import.option("--kind", arguments->kind, "KIND", s_kindHelp);
  import.flag("--all", arguments->all,
              "Take system accounts of a password file too: numbers below 1000, and 65534");
  import.flag("--dry-run", arguments->dryRun, "Write nothing; show how many would be written");
}

}  // namespace Tessel::Tool
