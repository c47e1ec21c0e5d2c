// Where the options of the default server come from. For this directory, and for programs that are
// given the name of an option file.
#ifndef TSL_DATABASE_OPTIONSOURCE_H
#define TSL_DATABASE_OPTIONSOURCE_H

#include <string>

#include "base/Export.h"
#include "database/OptionFile.h"

namespace Tessel::Database {

// An immutable value.
struct OptionSource {
  // The one file to read; empty for the standard option files.
  std::string file;

  // What the environment names now. Throws Exception, code 4, when TSL_DATABASE_OPTION_FILE names a
  // file that cannot be read, is no regular file, that everyone may write to, that has no group
  // that is read, or that is broken: the standard files never take its place, since they may name
  // another server. The environment must not be changed by another thread meanwhile.
  static OptionSource current();
  // The same for a file whose name is known, or for the standard files where it is empty.
  TSL_EXPORT static OptionSource of(const std::string& file);

  // For messages: which files and groups are read.
  [[nodiscard]] std::string text() const;
};

// Throws Exception, code 4, for options with which no connection could be opened, whatever the
// server says. Connections check that themselves; this is for who wants to know beforehand.
TSL_EXPORT void checkOptions(const OptionSource& source);

}  // namespace Tessel::Database

#endif
