// Encryption: who names any option about it gets it, with a server whose certificate was checked,
// or no connection. Private to this directory.
#ifndef TSL_DATABASE_TLSOPTIONS_H
#define TSL_DATABASE_TLSOPTIONS_H

#include <mysql.h>

#include <vector>

#include "database/OptionFile.h"

namespace Tessel::Database {

// What option files ask for.
struct TlsDemand {
  // Any option about encryption is there. The rest is false without.
  bool isAsked = false;
  // The certificate must be valid, and for the name by which the host is called.
  bool checksName = false;
  // The certificate must be valid: issued by a known authority, in its time, not revoked.
  bool checksIssuer = false;
  // The certificate must be a certain one.
  bool checksFingerprint = false;
};

// What `options` ask for. Throws Exception, code 4, naming file, line and what to write, for
// options about encryption that the client library would ignore or take for something else, and for
// files of theirs that cannot be read.
TlsDemand tlsDemand(const std::vector<Option>& options);

// Has `mysql`, with its options set and not connected yet, fulfil the demand before it sends the
// user and the password, or fail. For a connection that is no Unix socket.
void demandTls(MYSQL* mysql, const TlsDemand& demand);

// Takes from `mysql` what a Unix socket needs none of: a connection without encryption will do, and
// the certificate need not be for a name.
void excuseTls(MYSQL* mysql);

}  // namespace Tessel::Database

#endif
