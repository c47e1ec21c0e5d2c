// OptionSource: checks a named option file before the client library reads it, which takes a
// missing or broken file for an empty one.
#include "database/OptionSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <system_error>

#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel::Database {

namespace {

constexpr char s_variable[] = "TSL_DATABASE_OPTION_FILE";

// Groups of an option file that the client library reads.
constexpr std::array<std::string_view, 4> s_groups = {"client", "client-server", "client-mariadb",
                                                      s_optionGroup};

[[noreturn]] void s_fail(const std::string& file, const std::string& why, int line = sourceLine()) {
  throw Exception(Exception("Database::Connection", 4, "OptionSource", line)
                      .stringParameter("The database option file '" + file + "'" + why));
}

// What keeps the content of `file` from being used, if anything does. The client library leaves out
// what it does not understand, and would connect to the server that is the default then.
std::string s_contentFault(const std::string& file) {
  std::ifstream lines(file);
  bool inGroup = false;
  bool isKnown = false;
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#' || line[first] == ';') continue;
    // Another file, which may have the groups.
    isKnown = isKnown || line[first] == '!';
    if (line[first] == '!') continue;
    const std::string place = "is broken in line " + std::to_string(number) + ": ";
    if (line[first] != '[') {
      if (!inGroup) return place + "an option before the first group, such as [client]";
      continue;
    }
    const std::size_t end = line.find(']', first);
    if (end == std::string::npos) return place + "the name of a group has no ']'";
    const std::string_view text(line.data() + first + 1, end - first - 1);
    const std::string_view group = text.substr(0, text.find_last_not_of(" \t") + 1);
    isKnown = isKnown || std::find(s_groups.begin(), s_groups.end(), group) != s_groups.end();
    inGroup = true;
  }
  return isKnown ? "" : std::string("has no group [client] or [") + s_optionGroup + "]";
}

// What keeps `file` from being read and trusted; empty when nothing does.
std::string s_fault(const std::string& file) {
  const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    return "cannot be read (" + std::generic_category().message(errno) + ")";
  }
  struct stat status {};
  const int result = fstat(descriptor, &status);
  const int error = errno;
  close(descriptor);
  if (result != 0) return "cannot be read (" + std::generic_category().message(error) + ")";
  if (!S_ISREG(status.st_mode)) return "is not a regular file; name a file with a [client] group";
  if ((status.st_mode & S_IWOTH) != 0) {
    return "may be written by everyone, who could name another server; chmod o-w it";
  }
  return s_contentFault(file);
}

}  // namespace

OptionSource OptionSource::current() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; callers keep the environment still
  const char* const file = std::getenv(s_variable);
  if (file == nullptr || *file == '\0') return {};
  const std::string why = s_fault(file);
  if (!why.empty()) {
    s_fail(file, std::string(", named by ") + s_variable + ", " + why +
                     "; correct the file or the variable, or unset it to use the standard option"
                     " files");
  }
  return {file};
}

OptionSource OptionSource::of(const std::string& file) {
  const std::string why = file.empty() ? "" : s_fault(file);
  if (!why.empty()) s_fail(file, " " + why);
  return {file};
}

std::string OptionSource::text() const {
  return (file.empty() ? "the standard option files" : "option file " + file) +
         ", groups [client] and [" + s_optionGroup + "]";
}

}  // namespace Tessel::Database
