// What the files of the configuration do not allow this process, for the log.
#ifndef TSL_TOOLS_SERVE_BASE_ACCESSRIGHTS_H
#define TSL_TOOLS_SERVE_BASE_ACCESSRIGHTS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace Tessel::Serve {

// The first right that this process needs in order to read the configuration in `directory` and
// does not have, and how an administrator grants it: "the user x (groups y) may not ...; ...".
// Empty when none is missing, or when a file is not there. Any thread.
std::string missingRight(const std::string& directory);

// The groups of this process, the first one being that of the files that it creates. Any thread.
std::vector<gid_t> ownGroups();

}  // namespace Tessel::Serve

#endif
