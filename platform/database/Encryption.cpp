// Encryption: its words.
#include "database/Encryption.h"

namespace Tessel::Database {

std::string Encryption::checkText() const {
  switch (check) {
    case Check::Authority:
      return "authority";
    case Check::Name:
      return "name";
    case Check::Fingerprint:
      return "fingerprint";
    default:
      return "nothing";
  }
}

std::string Encryption::text() const {
  std::string text = cipher + " (" + version + "), certificate of " +
                     (subject.empty() ? "an unknown owner" : subject);
  switch (check) {
    case Check::Authority:
      return text + " verified by its authority, but not for this host";
    case Check::Name:
    case Check::Fingerprint:
      return text + " verified by its " + checkText();
    default:
      return text + " not verified";
  }
}

}  // namespace Tessel::Database
