// OptionFile: what the client library makes of an option file, line by line.
#include "database/OptionFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel::Database {

namespace {

constexpr std::array<std::string_view, 4> s_groups = {"client", "client-server", "client-mariadb",
                                                      s_optionGroup};
// Those of isspace() in the locale "C".
constexpr std::string_view s_blanks = " \t\n\v\f\r";
// What the client library reads at a time. The rest of a longer line counts as a line of its own.
constexpr std::size_t s_longestLine = 4094;
// A file that is included by files this deep is left out.
constexpr int s_deepest = 64;
// Files that include themselves twice would be read forever.
constexpr int s_mostFiles = 1000;

[[noreturn]] void s_refuseFile(const std::string& file, const std::string& why,
                               int line = sourceLine()) {
  throw Exception(Exception("Database::Connection", 4, "OptionFile", line)
                      .stringParameter("The database option file '" + file + "' " + why));
}

std::string_view s_withoutEnd(std::string_view text) {
  return text.substr(0, text.find_last_not_of(s_blanks) + 1);
}

char s_unescaped(char letter) {
  switch (letter) {
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'r':
      return '\r';
    case 'b':
      return '\b';
    case 's':
      return ' ';
    case '"':
    case '\'':
    case '\\':
      return letter;
    default:
      return '\0';  // Not an escape.
  }
}

// `text`, what follows the '=', without its quotes, which need not match, and its escapes.
std::string s_value(std::string_view text) {
  const auto isQuote = [](char letter) { return letter == '\'' || letter == '"'; };
  text = s_withoutEnd(text);
  text.remove_prefix(std::min(text.find_first_not_of(s_blanks), text.size()));
  if (!text.empty() && isQuote(text.front())) {
    text.remove_prefix(1);
    if (!text.empty() && isQuote(text.back())) text.remove_suffix(1);
  }
  std::string value;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isEscape = text[i] == '\\' && i + 1 != text.size();
    const char letter = isEscape ? s_unescaped(text[++i]) : text[i];
    if (letter != '\0') {
      value += letter;
    } else {
      value += '\\';
      value += text[i];
    }
  }
  return value;
}

// The lines of a file that mean something.
class Lines {
 public:
  enum class Kind { Directive, Group, Option, Fault };
  struct Line {
    Kind kind;
    // Of a directive or a group its name, of an option its key, of a fault what it is.
    std::string name;
    // Of a directive what follows it, of an option its value.
    std::optional<std::string> value;
    int number;
  };

  explicit Lines(std::string_view content) : m_rest(content) {}

  // None at the end. The client library reads no further than to the first fault.
  std::optional<Line> next() {
    while (!m_rest.empty()) {
      const int number = m_number;
      std::optional<Line> line = meaning(nextPiece());
      if (!line) continue;
      line->number = number;
      if (line->kind == Kind::Fault) m_rest = {};
      return line;
    }
    return {};
  }

 private:
  std::string_view nextPiece() {
    const std::size_t end = std::min(m_rest.find('\n'), m_rest.size() - 1) + 1;
    const std::string_view piece = m_rest.substr(0, std::min(end, s_longestLine));
    m_rest.remove_prefix(piece.size());
    if (piece.back() == '\n') ++m_number;
    return piece.substr(0, piece.find('\0'));
  }

  std::optional<Line> meaning(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(s_blanks), text.size()));
    if (text.empty()) return {};
    // A quote at the start of a line makes it a comment, unless the last one began with a '\'.
    if (!m_isEscaped && (text[0] == '"' || text[0] == '\'')) return {};
    if (text[0] == '!') return directive(text.substr(1));
    if (text[0] == '#' || text[0] == ';') return {};
    m_isEscaped = text[0] == '\\';
    if (text[0] == '[') return group(text.substr(1));
    if (!m_hasGroup) {
      return Line{Kind::Fault, "an option before the first group, such as [client]", {}, 0};
    }
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) return Line{Kind::Option, std::string(text), {}, 0};
    return Line{Kind::Option, std::string(s_withoutEnd(text.substr(0, equals))),
                s_value(text.substr(equals + 1)), 0};
  }

  static Line directive(std::string_view text) {
    const std::size_t blank = text.find(' ');
    Line line{Kind::Directive, std::string(text.substr(0, blank)), {}, 0};
    if (blank != std::string_view::npos) line.value = s_withoutEnd(text.substr(blank + 1));
    return line;
  }

  Line group(std::string_view text) {
    m_hasGroup = true;
    const std::size_t end = text.find(']');
    if (end == std::string_view::npos) {
      return {Kind::Fault, "the name of a group has no ']'", {}, 0};
    }
    return {Kind::Group, std::string(s_withoutEnd(text.substr(0, end))), {}, 0};
  }

  std::string_view m_rest;
  int m_number = 1;
  bool m_hasGroup = false;
  bool m_isEscaped = false;
};

bool s_isGroupRead(const std::string& name) {
  return std::find(s_groups.begin(), s_groups.end(), name) != s_groups.end();
}

std::string s_brokenIn(const Lines::Line& fault) {
  return "is broken in line " + std::to_string(fault.number) + ": " + fault.name;
}

// What keeps `content` from being used, if anything does. The client library leaves out what it
// does not understand, and would connect to the server that is the default then.
std::string s_contentFault(std::string_view content) {
  Lines lines(content);
  bool isKnown = false;
  while (const auto line = lines.next()) {
    if (line->kind == Lines::Kind::Fault) return s_brokenIn(*line);
    // A directive names another file, which may have the groups.
    isKnown = isKnown || line->kind == Lines::Kind::Directive ||
              (line->kind == Lines::Kind::Group && s_isGroupRead(line->name));
  }
  return isKnown ? "" : std::string("has no group [client] or [") + s_optionGroup + "]";
}

// Closes a descriptor.
class Descriptor {
 public:
  explicit Descriptor(const std::string& file)
      : m_descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~Descriptor() {
    if (m_descriptor >= 0) close(m_descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int number() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

std::string s_unreadable() {
  return "cannot be read (" + std::generic_category().message(errno) + ")";
}

// Everything that can be read from `descriptor`, or none with errno set. (No stream: it would take
// a lack of memory for the end of the file.)
std::optional<std::string> s_contentOf(int descriptor) {
  std::string content;
  std::array<char, 4096> buffer{};
  ssize_t size = 0;
  do {
    size = read(descriptor, buffer.data(), buffer.size());
    if (size > 0) content.append(buffer.data(), static_cast<std::size_t>(size));
  } while (size > 0 || (size < 0 && errno == EINTR));
  if (size < 0) return {};
  return content;
}

// The content of `file` as the one option file; empty, with `fault` set, when it cannot be trusted.
std::string s_trusted(const std::string& file, std::string& fault) {
  const Descriptor descriptor(file);
  struct stat status {};
  if (descriptor.number() < 0 || fstat(descriptor.number(), &status) != 0) {
    fault = s_unreadable();
  } else if (!S_ISREG(status.st_mode)) {
    fault = "is not a regular file; name a file with a [client] group";
  } else if ((status.st_mode & S_IWOTH) != 0) {
    fault = "may be written by everyone, who could name another server; chmod o-w it";
  } else {
    auto content = s_contentOf(descriptor.number());
    fault = content ? s_contentFault(*content) : s_unreadable();
    if (content) return *std::move(content);
  }
  return {};
}

// Collects the options of files and of what they include.
class Reader {
 public:
  void readNamed(const std::string& file) {
    std::string fault;
    const std::string content = s_trusted(file, fault);
    if (!fault.empty()) s_refuseFile(file, fault);
    take(content, file, 0);
  }

  void readStandard(int depth) {
    if (depth >= s_deepest) return;
    // NOLINTBEGIN(concurrency-mt-unsafe): read only; callers keep the environment still
    const char* home = std::getenv("MARIADB_HOME");
    if (home == nullptr) home = std::getenv("MYSQL_HOME");
    const char* const user = std::getenv("HOME");
    // NOLINTEND(concurrency-mt-unsafe)
    std::vector<std::string> directories = {"/etc", "/etc/mysql"};
    if (home != nullptr &&
        std::find(directories.begin(), directories.end(), home) == directories.end()) {
      directories.emplace_back(home);
    }
    for (const std::string& directory : directories) readIfThere(directory + "/my.cnf", depth);
    if (user != nullptr) readIfThere(std::string(user) + "/.my.cnf", depth);
  }

  std::vector<Option> options;

 private:
  void readIfThere(const std::string& file, int depth) {
    if (depth >= s_deepest) return;
    const Descriptor descriptor(file);
    if (descriptor.number() >= 0) return read(descriptor, file, depth);
    for (const int absent : {ENOENT, ENOTDIR, EACCES, ELOOP, ENAMETOOLONG}) {
      if (errno == absent) return;
    }
    s_refuseFile(file, s_unreadable());
  }

  void readDirectory(const std::string& directory, int depth) {
    constexpr char s_onlyFile[] = "my.cnf";
    readIfThere(directory + "/" + s_onlyFile, depth);
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
      const std::filesystem::path& path = entry->path();
      if (path.extension() == ".cnf" && path.filename() != s_onlyFile) overlook(path.string());
    }
  }

  // Takes the options of a file that is not read, for who must know that they do not count.
  void overlook(const std::string& file) {
    const Descriptor descriptor(file);
    const auto content = descriptor.number() < 0 ? std::nullopt : s_contentOf(descriptor.number());
    if (!content) return;
    Lines lines(*content);
    bool isRead = false;
    while (auto line = lines.next()) {
      if (line->kind == Lines::Kind::Group) isRead = s_isGroupRead(line->name);
      if (line->kind != Lines::Kind::Option || !isRead) continue;
      options.push_back({"!" + line->name, std::move(line->value), file, line->number});
    }
  }

  void read(const Descriptor& descriptor, const std::string& file, int depth) {
    const auto content = s_contentOf(descriptor.number());
    if (content) return take(*content, file, depth);
    // A directory of that name has no options.
    if (errno != EISDIR) s_refuseFile(file, s_unreadable());
  }

  void take(const std::string& content, const std::string& file, int depth) {
    if (++m_files > s_mostFiles) s_refuseFile(file, "and others include each other without end");
    Lines lines(content);
    bool isRead = false;
    while (auto line = lines.next()) {
      switch (line->kind) {
        case Lines::Kind::Fault:
          return s_refuseFile(file, s_brokenIn(*line));
        case Lines::Kind::Group:
          isRead = s_isGroupRead(line->name);
          break;
        case Lines::Kind::Directive:
          include(*line, file, depth + 1);
          break;
        case Lines::Kind::Option:
          if (!isRead) break;
          std::replace(line->name.begin(), line->name.end(), '_', '-');
          options.push_back({std::move(line->name), std::move(line->value), file, line->number});
          break;
      }
    }
  }

  void include(const Lines::Line& line, const std::string& by, int depth) {
    const bool isDirectory = line.name == "includedir";
    if (!line.value || depth >= s_deepest || (!isDirectory && line.name != "include")) return;
    // So does the client library.
    if (line.value->empty()) return readStandard(depth);
    if (isDirectory) return readDirectory(*line.value, depth);
    const Descriptor descriptor(*line.value);
    if (descriptor.number() >= 0) return read(descriptor, *line.value, depth);
    s_refuseFile(by, "includes in line " + std::to_string(line.number) + " '" + *line.value +
                         "', which " + s_unreadable());
  }

  int m_files = 0;
};

}  // namespace

void refuseOption(const Option& option, const std::string& why, const char* source, int line) {
  throw Exception(Exception("Database::Connection", 4, source, line)
                      .stringParameter("The database option file '" + option.file + "', line " +
                                       std::to_string(option.line) + ": " + why));
}

std::string optionFileFault(const std::string& file) {
  std::string fault;
  s_trusted(file, fault);
  return fault;
}

std::vector<Option> readOptions(const std::string& file) {
  Reader reader;
  if (file.empty()) {
    reader.readStandard(0);
  } else {
    reader.readNamed(file);
  }
  return std::move(reader.options);
}

std::optional<std::string> lastValue(const std::vector<Option>& options,
                                     const std::vector<std::string_view>& names) {
  std::optional<std::string> last;
  for (const Option& option : options) {
    if (std::find(names.begin(), names.end(), option.key) != names.end()) last = option.value;
  }
  if (last && last->empty()) last.reset();
  return last;
}

}  // namespace Tessel::Database
