// A text that a person changes in an editor.
#include "terminal/EditedFile.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "disk/AtomicFile.h"
#include "failure/Failure.h"
#include "terminal/Interrupt.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"
#include "terminal/Terminal.h"

namespace Tessel::Tool {

namespace {

// What an interrupt has to say; empty when there is nothing.
std::array<char, 4096> s_farewell{};

void s_sayFarewell() {
  static_cast<void>(!::write(STDERR_FILENO, s_farewell.data(), std::strlen(s_farewell.data())));
}

std::string s_keptText(const std::string& path) {
  return "the edited file is kept: " + path;
}

void s_setFarewell(const std::string& text) {
  const Uninterrupted guard;
  s_farewell.fill('\0');
  text.copy(s_farewell.data(), s_farewell.size() - 1);
}

Failure s_notWritten(const std::string& path, int error) {
  return {ExitCode::OutputFailed, "file " + path, std::generic_category().message(error),
          "nothing was changed; TMPDIR names the directory for the file to edit"};
}

std::string s_makeDirectory() {
  const std::string_view parent = environmentText("TMPDIR");
  std::string path = std::string(parent.empty() ? "/tmp" : parent) + "/tsl-address-map-edit-XXXXXX";
  if (mkdtemp(path.data()) == nullptr) throw s_notWritten(path, errno);
  return path;
}

// The command of the editor, for people.
std::string s_editor() {
  for (const char* const name : {"VISUAL", "EDITOR"}) {
    if (const std::string_view value = environmentText(name); !value.empty()) {
      return std::string(value);
    }
  }
  return "";
}

// Ignores what is typed for the editor, which shares the terminal, while it exists.
class Deaf {
 public:
  Deaf() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (std::size_t i = 0; i < s_signals.size(); ++i) {
      sigaction(s_signals.at(i), &ignore, &m_before.at(i));
    }
  }
  ~Deaf() {
    for (std::size_t i = 0; i < s_signals.size(); ++i) {
      sigaction(s_signals.at(i), &m_before.at(i), nullptr);
    }
  }
  Deaf(const Deaf&) = delete;
  Deaf& operator=(const Deaf&) = delete;

 private:
  static constexpr std::array<int, 2> s_signals = {SIGINT, SIGQUIT};
  std::array<struct sigaction, 2> m_before{};
};

// Runs `script` with the argument `path`, and waits. What waitpid() has for it, or the error of
// starting it, negative.
int s_run(const std::string& script, const std::string& path) {
  std::array<std::string, 5> words = {"sh", "-c", script, "sh", path};
  std::array<char*, 6> arguments{};
  for (std::size_t i = 0; i < words.size(); ++i) arguments.at(i) = words.at(i).data();
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t usual;
  sigemptyset(&usual);
  for (const int signal : {SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ}) sigaddset(&usual, signal);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const Deaf guard;
  pid_t child = 0;
  const int error = posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) return -error;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace

EditedFile::EditedFile(const std::string& name, std::string text)
    : m_text(std::move(text)), m_directory(s_makeDirectory()), m_path(m_directory + "/" + name) {
  try {
    AtomicFile file(m_path, m_path + ".new", S_IRUSR | S_IWUSR);
    file.write(m_text);
    file.finish();
  } catch (const std::system_error& error) {
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
    throw s_notWritten(m_path, error.code().value());
  }
  s_setFarewell("\ntsl-address-map: " + printable(s_keptText(m_path)) + "\n");
  tidyUpOnInterrupt(s_sayFarewell);
}

EditedFile::~EditedFile() {
  try {
    s_setFarewell("");
    if (!m_isDiscarded && isChanged() && access(m_path.c_str(), F_OK) == 0) {
      say(s_keptText(m_path));
      return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
  } catch (const std::exception&) {
    // There is no memory: the file stays.
  }
}

void EditedFile::edit() const {
  const std::string editor = s_editor();
  // The shell stays whatever is typed for the editor, which gets the usual signals.
  const std::string script =
      "trap : INT QUIT; " +
      (editor.empty() ? R"(if command -v editor >/dev/null; then editor "$1"; else vi "$1"; fi)"
                      : editor + " \"$1\"");
  const std::string subject = "editor '" + (editor.empty() ? "vi" : editor) + "'";
  const int status = s_run(script, m_path);
  if (status < 0) {
    throw Failure(ExitCode::Unavailable, subject, std::generic_category().message(-status),
                  "nothing was changed");
  }
  // The shell has its own numbers for signals, and for what it cannot run.
  constexpr int s_notExecutable = 126;
  constexpr int s_notFound = 127;
  const int code = WIFSIGNALED(status) ? s_notFound + 1 + WTERMSIG(status) : WEXITSTATUS(status);
  if (code == 0) return;
  if (code == s_notExecutable || code == s_notFound) {
    throw Failure(ExitCode::Configuration, subject, "it cannot be run",
                  "nothing was changed; set VISUAL or EDITOR to an editor");
  }
  throw Failure(ExitCode::Unavailable, subject,
                code > s_notFound ? "signal " + std::to_string(code - s_notFound - 1) + " ended it"
                                  : "it ended with exit status " + std::to_string(code),
                "nothing was changed");
}

bool EditedFile::isChanged() const {
  std::ifstream file(m_path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  return !file || text != m_text;
}

}  // namespace Tessel::Tool
