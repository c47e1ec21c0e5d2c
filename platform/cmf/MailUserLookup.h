// Looks up one mail user by name, without reading the table of its domain.
#ifndef TSL_CMF_MAILUSERLOOKUP_H
#define TSL_CMF_MAILUSERLOOKUP_H

#include <string>

#include "base/Export.h"
#include "cmf/MailUser.h"

namespace Tessel::CMF {

// What is known of a mail user. A value.
struct MailUserAnswer {
  enum class State {
    UnknownDomain,  // The configuration does not have the domain.
    UnknownUser,    // It has the domain, without such a user.
    Found,
  };

  State state = State::UnknownDomain;
  MailUserKind kind = MailUserDisabled;  // Of a user that was found; otherwise without meaning.
};

// Looks up `user`, the local part of an address, in `domain`, both in any ASCII letter case, in the
// state of the configuration that is newest now or that the calling thread has locked. The time
// grows with the logarithm of the number of users. Throws Exception, context "CMF::MailUserLookup"
// or that of what failed, code 4, when the configuration cannot be read. Any thread.
TSL_EXPORT MailUserAnswer findMailUser(const std::string& domain, const std::string& user);

}  // namespace Tessel::CMF

#endif
