// The check of the domains of the configuration.
#include "check/DomainCheck.h"

#include <string>
#include <vector>

namespace Tessel::Tool {

void checkDomains(const MailUsers& users, Findings& findings) {
  const MailUsers::Domains& domains = users.domains();
  for (auto next = domains.begin(); next != domains.end();) {
    std::vector<std::string> names;
    const auto end = domains.upper_bound(next->first);
    for (; next != end; ++next) names.push_back(next->second.name);
    if (names.size() < 2) continue;
    findings.add({Severity::Error, "domain-spellings", "", names.front(),
                  "is stored in " + std::to_string(names.size()) +
                      " spellings, each with users of its own: a program that compares letter by"
                      " letter finds those of one only",
                  "tsl-address-map domain merge " + shellWord(names.front()), names});
  }
}

}  // namespace Tessel::Tool
