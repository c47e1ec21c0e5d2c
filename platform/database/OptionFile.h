// Reads option files the way the client library does (Connector/C 3.3), so that every option can be
// looked at before it is used. Private to this directory.
#ifndef TSL_DATABASE_OPTIONFILE_H
#define TSL_DATABASE_OPTIONFILE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/sourceLine.h"

namespace Tessel::Database {

// The option group that is read in addition to [client].
inline constexpr char s_optionGroup[] = "tsl-address-map";

// An option, and where it stands.
struct Option {
  // With '-' for every '_', as the client library compares it. It takes the rest of the line for
  // the key of an option without '=', the newline included: such a key is none that it knows,
  // unless the file ends with it. So it is here. With a '!' before it the key is in a file of a
  // directory of `!includedir` that other programs read and the client library does not.
  std::string key;
  // Without its quotes and escapes. None: there is no '='.
  std::optional<std::string> value;
  std::string file;
  int line;
};

// Throws Exception, code 4, which names the place of `option`; `source` is who refuses it.
[[noreturn]] void refuseOption(const Option& option, const std::string& why, const char* source,
                               int line = sourceLine());

// What keeps `file` from being used as the one option file; empty when nothing does.
std::string optionFileFault(const std::string& file);

// The options of groups [client], [client-server], [client-mariadb] and [tsl-address-map] in the
// order in which they count: the last one of a key wins, and an empty value unsets it. From `file`
// alone, or from the standard files where it is empty, with what these include. Throws Exception,
// code 4, for what could hide an option: a file that `file` names or that is included and cannot be
// read, or one that is broken. As the client library does, it leaves out standard files that are
// missing or that this process may not read. Reads the environment (MARIADB_HOME, MYSQL_HOME,
// HOME), which no other thread must change meanwhile. Any thread.
std::vector<Option> readOptions(const std::string& file);

// The value that counts of the option that has these names ("host" and "servername" are one), or
// none when it is not there or unset.
std::optional<std::string> lastValue(const std::vector<Option>& options,
                                     const std::vector<std::string_view>& names);

}  // namespace Tessel::Database

#endif
