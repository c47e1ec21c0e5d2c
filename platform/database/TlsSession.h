// What an open connection has of encryption. Private to this directory.
#ifndef TSL_DATABASE_TLSSESSION_H
#define TSL_DATABASE_TLSSESSION_H

#include <mysql.h>

#include <chrono>
#include <optional>

#include "database/Encryption.h"
#include "database/TlsOptions.h"

namespace Tessel::Database {

// Checks the open connection `mysql` for which the demand was made, before anything else is sent on
// it and not later than `until`. Throws Error when it is not encrypted, or when the answers on it
// are not those of the server: what came before the encryption began would be taken for them.
void checkTls(MYSQL* mysql, const TlsDemand& demand, std::chrono::steady_clock::time_point until);

// What encrypts the open connection `mysql`, for which the demand was made (none for a Unix
// socket), or nothing.
std::optional<Encryption> encryptionOf(MYSQL* mysql, const TlsDemand& demand);

}  // namespace Tessel::Database

#endif
