// Joining the spellings in which the configuration has a domain.
#ifndef TSL_TOOLS_TABLES_DOMAINMERGE_H
#define TSL_TOOLS_TABLES_DOMAINMERGE_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "cmf/MailUser.h"
#include "tables/MailUsers.h"

namespace Tessel::Tool {

// How a new domain `domain` is stored: as it is in mail, so with "xn--" for labels beyond ASCII.
// Throws Failure, `BadData`, when no mail server could ask for it.
std::string nameToStore(const std::string& domain);

// What joining does. An immutable value.
class DomainMerge {
 public:
  // `domain` must be stored in one spelling at least. Throws Failure, `BadData`, when two spellings
  // of one user are of different kinds, and that of `users`.
  DomainMerge(const std::string& domain, MailUsers& users);

  // The name that is left, as nameToStore() has it.
  [[nodiscard]] const std::string& name() const { return m_name; }
  // The names that go; none when there is nothing to do.
  [[nodiscard]] const std::vector<std::string>& gone() const { return m_gone; }
  // How many mail users it has then.
  [[nodiscard]] std::size_t users() const { return m_users.size(); }

  // Carries it out in one transaction. Throws Exception when the configuration cannot be written.
  void write() const;

 private:
  std::string m_name;
  std::vector<std::string> m_gone;
  std::map<std::string, CMF::MailUserKind> m_users;  // By their names.
};

}  // namespace Tessel::Tool

#endif
