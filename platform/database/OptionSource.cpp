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

namespace Tessel::Database {

namespace {

constexpr char s_variable[] = "TSL_DATABASE_OPTION_FILE";

std::string s_environment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; callers keep the environment still
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

[[noreturn]] void s_fail(int line, const std::string& file, const std::string& why) {
  throw Exception(Exception("Database::Connection", 4, "OptionSource", line)
                      .stringParameter("The database option file '" + file + "', named by " +
                                       s_variable + ", " + why));
}

// Describes the file and proves that it can be read.
struct stat s_examine(const std::string& file) {
  const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    const std::string reason = std::generic_category().message(errno);
    s_fail(46, file,
           "cannot be read (" + reason +
               "); correct the variable, or unset it to use the standard option files");
  }
  struct stat status {};
  const int result = fstat(descriptor, &status);
  const int error = errno;
  close(descriptor);
  if (result != 0) s_fail(54, file, "cannot be read: " + std::generic_category().message(error));
  if (!S_ISREG(status.st_mode)) {
    s_fail(56, file, "is not a regular file; name a file with a [client] group");
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    s_fail(59, file, "may be written by everyone, who could name another server; chmod o-w it");
  }
  return status;
}

}  // namespace

OptionSource OptionSource::current() {
  return of(s_environment(s_variable));
}

OptionSource OptionSource::of(const std::string& file) {
  OptionSource source;
  source.file = file;
  if (file.empty()) {
    for (const char* name : {"HOME", "MARIADB_HOME", "MYSQL_HOME"}) {
      source.key += s_environment(name) + '\n';
    }
    return source;
  }
  const struct stat status = s_examine(file);
  source.key = file + '\n';
  for (const long long number :
       {static_cast<long long>(status.st_dev), static_cast<long long>(status.st_ino),
        static_cast<long long>(status.st_size), static_cast<long long>(status.st_mtim.tv_sec),
        static_cast<long long>(status.st_mtim.tv_nsec)}) {
    source.key += std::to_string(number) + '\n';
  }
  return source;
}

std::string OptionSource::text() const {
  return (file.empty() ? "the standard option files" : "option file " + file) +
         ", groups [client] and [" + s_optionGroup + "]";
}

}  // namespace Tessel::Database
