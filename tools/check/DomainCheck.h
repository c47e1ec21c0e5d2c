// The check of the domains of the configuration.
#ifndef TSL_TOOLS_CHECK_DOMAINCHECK_H
#define TSL_TOOLS_CHECK_DOMAINCHECK_H

#include "check/Findings.h"
#include "tables/MailUsers.h"

namespace Tessel::Tool {

// Adds a finding for each domain that is stored in several spellings.
void checkDomains(const MailUsers& users, Findings& findings);

}  // namespace Tessel::Tool

#endif
