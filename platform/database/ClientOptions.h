// Hands options to the client library. Private to this directory.
#ifndef TSL_DATABASE_CLIENTOPTIONS_H
#define TSL_DATABASE_CLIENTOPTIONS_H

#include <mysql.h>

#include <string_view>
#include <vector>

#include "database/OptionFile.h"

namespace Tessel::Database {

// Sets `options` on `mysql`, as the client library would if it read the files itself, where it
// would read them a second time: what was checked is what counts. Keys that it does not know are
// left out. Throws Exception, code 4, for what it cannot take: "connection" and hosts that hold
// other options, and "init-command" without a value, for which it would end the process.
void applyOptions(MYSQL* mysql, const std::vector<Option>& options);

// The first name of the option that the client library knows as `key`, or empty for a key that it
// does not know: "host" for "servername", "ssl-ca" for "tls-ca".
std::string_view optionName(std::string_view key);

}  // namespace Tessel::Database

#endif
