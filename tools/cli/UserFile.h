// A file of mail users, read and checked as a whole.
#ifndef TSL_TOOLS_CLI_USERFILE_H
#define TSL_TOOLS_CLI_USERFILE_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"
#include "cmf/MailUser.h"
#include "files/Lines.h"
#include "files/TableFile.h"
#include "tables/MailUsers.h"
#include "tables/SpellingIndex.h"
#include "terminal/Progress.h"

namespace Tessel::Tool {

// The lines are those of a password file, or addresses, each alone or with a tab and its kind. With
// `hasDomains` some are domains, whose users may follow. One thread.
class UserFile {
 public:
  struct Options {
    std::string path;                               // "-" is standard input.
    CMF::MailUserKind kind = CMF::MailUserMailbox;  // Of lines without a kind.
    std::string domain{};                           // Of the names of a password file.
    bool all = false;  // Take the system accounts of a password file, too.
    bool hasDomains = false;
  };
  struct User {
    EmailAddress address;
    CMF::MailUserKind kind;
  };
  struct Domain {
    bool isNew = false;       // The configuration has it in no spelling.
    std::vector<User> users;  // In the order in which the configuration takes them fastest.
  };

  // Reads the file; `progress` counts its lines. Reports bad lines. Throws Failure: `BadData` when
  // there are some, or the file cannot be read; `Usage` when the options do not fit it; and that of
  // `configuration`, which with `hasDomains` may be absent.
  UserFile(const Options& options, const MailUsers& configuration, Progress& progress);

  // The domains that it has, or whose users it has, by their names as they are stored.
  [[nodiscard]] const std::map<std::string, Domain>& domains() const { return m_domains; }
  // How many users there are.
  [[nodiscard]] std::size_t users() const { return m_seen.size(); }
  // How many lines repeat a user, in any spelling.
  [[nodiscard]] std::size_t repeated() const { return m_repeated; }
  // How many accounts were left out.
  [[nodiscard]] std::size_t system() const { return m_system; }

 private:
  void requireDomain(bool isPasswd) const;
  // Each takes a line and returns what is wrong with it, or empty text.
  std::string addAccount(std::string_view line);
  std::string addLine(std::string_view line);
  std::string addDomain(const std::string& text);
  std::string addAddress(std::string_view text, CMF::MailUserKind kind);
  std::string addUser(EmailAddress address, CMF::MailUserKind kind);
  Domain* stored(const std::string& domain);

  const Options& m_options;          // While the file is read.
  const MailUsers& m_configuration;  // The same.
  std::string m_name;                // For messages.
  std::string m_domain;              // As Options has it.
  std::map<std::string, Domain> m_domains;
  std::map<std::string, Domain*> m_known;  // By the spelling of the domain; null: it is not there.
  std::map<std::string, Domain*> m_new;    // The new ones, by their comparisonDomain().
  SpellingIndex m_seen;
  std::vector<CMF::MailUserKind> m_kinds;  // By the number of the address.
  std::size_t m_repeated = 0;
  std::size_t m_system = 0;
};

}  // namespace Tessel::Tool

#endif
