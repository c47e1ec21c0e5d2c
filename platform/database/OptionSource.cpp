// OptionSource: checks a named option file before the client library reads it, which takes a
// missing file for an empty one.
#include "database/OptionSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel::Database {

namespace {

constexpr char s_variable[] = "TSL_DATABASE_OPTION_FILE";

[[noreturn]] void s_fail(const std::string& file, const std::string& why, int line = sourceLine()) {
  throw Exception(Exception("Database::Connection", 4, "OptionSource", line)
                      .stringParameter("The database option file '" + file + "', named by " +
                                       s_variable + ", " + why));
}

// Proves that the file can be read and trusted.
void s_examine(const std::string& file) {
  const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    const std::string reason = std::generic_category().message(errno);
    s_fail(file, "cannot be read (" + reason +
                     "); correct the variable, or unset it to use the standard option files");
  }
  struct stat status {};
  const int result = fstat(descriptor, &status);
  const int error = errno;
  close(descriptor);
  if (result != 0) s_fail(file, "cannot be read: " + std::generic_category().message(error));
  if (!S_ISREG(status.st_mode)) {
    s_fail(file, "is not a regular file; name a file with a [client] group");
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    s_fail(file, "may be written by everyone, who could name another server; chmod o-w it");
  }
}

}  // namespace

OptionSource OptionSource::current() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; callers keep the environment still
  const char* const file = std::getenv(s_variable);
  return of(file != nullptr ? file : "");
}

OptionSource OptionSource::of(const std::string& file) {
  if (!file.empty()) s_examine(file);
  return {file};
}

std::string OptionSource::text() const {
  return (file.empty() ? "the standard option files" : "option file " + file) +
         ", groups [client] and [" + s_optionGroup + "]";
}

}  // namespace Tessel::Database
