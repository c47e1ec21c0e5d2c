// What encrypts a connection to the database server, and who is at its other end.
#ifndef TSL_DATABASE_ENCRYPTION_H
#define TSL_DATABASE_ENCRYPTION_H

#include <string>

#include "base/Export.h"

namespace Tessel::Database {

// An immutable value.
struct Encryption {
  // How the server's certificate was checked.
  enum class Check {
    None,         // Not at all: anybody may be at the other end.
    Authority,    // Issued by a known authority, for whatever name.
    Name,         // The same, for the name of the host.
    Fingerprint,  // It is the one that the option file names.
  };

  // For example "TLSv1.3".
  std::string version;
  // As OpenSSL names it, for example "TLS_AES_256_GCM_SHA384".
  std::string cipher;
  // Whose certificate it is, for example "CN=db1,O=Example". Empty where the client library does
  // not let it be seen. May hold any text: it comes from the certificate.
  std::string subject;
  Check check = Check::None;

  // True when nobody but the server can be at the other end.
  [[nodiscard]] bool isVerified() const noexcept {
    return check == Check::Name || check == Check::Fingerprint;
  }
  // "name", "authority", "fingerprint" or "nothing".
  [[nodiscard]] TSL_EXPORT std::string checkText() const;
  // For people: "TLS_AES_256_GCM_SHA384 (TLSv1.3), certificate of CN=db1 verified by its name".
  [[nodiscard]] TSL_EXPORT std::string text() const;
};

}  // namespace Tessel::Database

#endif
