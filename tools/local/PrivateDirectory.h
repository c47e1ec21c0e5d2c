// Directories and files of private servers, and the lock on such a directory.
#ifndef TSL_TOOLS_LOCAL_PRIVATEDIRECTORY_H
#define TSL_TOOLS_LOCAL_PRIVATEDIRECTORY_H

#include <sys/stat.h>

#include <string>

#include "disk/Descriptor.h"

namespace Tessel {

// All failures are thrown as `Exception`, code 4, with what to do in the detail text.

// Creates `directory`, and those above it, where missing, and gives it the permissions `mode`: only
// its owner may enter it, unless told otherwise. Throws when it belongs to another user.
void makePrivateDirectory(const std::string& directory, mode_t mode = S_IRWXU);

// The same for the directory of a server, which holds a file `lock` from its first lock on. Throws
// when it is in use for something else.
void makeServerDirectory(const std::string& directory, mode_t mode = S_IRWXU);

// Replaces `file` by `text` and a line end. Only its owner may read it.
void writePrivateFile(const std::string& file, const std::string& text);

// One start or stop at a time for one directory, over all processes. The kernel releases the lock
// when its holders have died. One thread.
class DirectoryLock {
 public:
  // Waits for the lock. `context` is that of its failures.
  DirectoryLock(const char* context, const std::string& directory);

  // A process that inherits it holds the lock until it ends.
  [[nodiscard]] int descriptor() const noexcept { return m_descriptor.get(); }

 private:
  const Tool::Descriptor m_descriptor;
};

}  // namespace Tessel

#endif
