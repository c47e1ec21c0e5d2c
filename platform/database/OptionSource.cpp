// OptionSource: checks a named option file before the client library reads it, which takes a
// missing or broken file for an empty one.
#include "database/OptionSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
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

// What keeps `content` from being used, if anything does. The client library leaves out what it
// does not understand, and would connect to the server that is the default then.
std::string s_contentFault(std::string_view content) {
  bool inGroup = false;
  bool isKnown = false;
  for (int number = 1; !content.empty(); ++number) {
    const std::string_view line = content.substr(0, content.find('\n'));
    content.remove_prefix(std::min(content.size(), line.size() + 1));
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#' || line[first] == ';') continue;
    // Another file, which may have the groups.
    isKnown = isKnown || line[first] == '!';
    if (line[first] == '!') continue;
    const auto broken = [number](const char* why) {
      return "is broken in line " + std::to_string(number) + ": " + why;
    };
    if (line[first] != '[') {
      if (!inGroup) return broken("an option before the first group, such as [client]");
      continue;
    }
    const std::size_t end = line.find(']', first);
    if (end == std::string::npos) return broken("the name of a group has no ']'");
    const std::string_view text = line.substr(first + 1, end - first - 1);
    const std::string_view group = text.substr(0, text.find_last_not_of(" \t") + 1);
    isKnown = isKnown || std::find(s_groups.begin(), s_groups.end(), group) != s_groups.end();
    inGroup = true;
  }
  return isKnown ? "" : std::string("has no group [client] or [") + s_optionGroup + "]";
}

// Closes a descriptor.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  ~Descriptor() { close(m_descriptor); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int number() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

std::string s_unreadable() {
  return "cannot be read (" + std::generic_category().message(errno) + ")";
}

// What keeps `file` from being read and trusted; empty when nothing does.
std::string s_fault(const std::string& file) {
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (descriptor.number() < 0) return s_unreadable();
  struct stat status {};
  if (fstat(descriptor.number(), &status) != 0) return s_unreadable();
  if (!S_ISREG(status.st_mode)) return "is not a regular file; name a file with a [client] group";
  if ((status.st_mode & S_IWOTH) != 0) {
    return "may be written by everyone, who could name another server; chmod o-w it";
  }
  // No stream: it would take a lack of memory for the end of the file.
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t size = read(descriptor.number(), content.data(), content.size());
  if (size < 0) return s_unreadable();
  return s_contentFault(std::string_view(content).substr(0, static_cast<std::size_t>(size)));
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
