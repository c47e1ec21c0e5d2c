// Fuzz target of option files as this project reads them: what may be named as one, and what a
// connection that fails reports of its content, which is never the password. That the lines mean
// what they mean to the client library is a test of their own. The first byte of an input is the
// kind of file, the second half of the rights to it, the third the length of its name, which
// follows; the rest is its content.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "base/Exception.h"
#include "database/Connection.h"
#include "database/OptionSource.h"
#include "fuzz/Fuzz.h"
#include "fuzz/ScratchDirectory.h"

using Tessel::Exception;
using Tessel::Database::Connection;
using Tessel::Database::OptionSource;
using Tessel::Fuzz::asText;
using Tessel::Fuzz::hasControls;
using Tessel::Fuzz::require;
using Tessel::Fuzz::ScratchDirectory;
using Tessel::Fuzz::Variable;

namespace {

constexpr char s_variable[] = "TSL_DATABASE_OPTION_FILE";
constexpr char s_password[] = "correct-horse-battery";

enum class Kind { File, LinkToFile, Missing, BrokenLink, LinkToItself, Directory, Pipe, Count };

// A name of one path component.
std::string s_name(std::string_view text) {
  std::string name(text);
  for (char& c : name) {
    if (c == '/' || c == '\0') c = '_';
  }
  return name.empty() || name == "." || name == ".." ? "options" : name;
}

// Writes the content where it cannot lead to a server: lines behind it name a socket that is not
// there, and it includes no other files.
void s_write(const std::string& path, const std::string& nowhere, std::string_view content) {
  std::ofstream file(path, std::ios::binary);
  for (const char c : content) file << (c == '!' ? '?' : c);
  file << "\n[tsl-address-map]\nhost=localhost\nprotocol=socket\nsocket=" << nowhere
       << "\npassword=" << s_password << "\n";
}

void s_create(Kind kind, const std::string& path, const std::string& target) {
  switch (kind) {
    case Kind::LinkToFile:
    case Kind::BrokenLink:
      return std::filesystem::create_symlink(target, path);
    case Kind::LinkToItself:
      return std::filesystem::create_symlink(path, path);
    case Kind::Directory:
      return static_cast<void>(std::filesystem::create_directory(path));
    case Kind::Pipe:
      return require(mkfifo(path.c_str(), 0600) == 0, "a pipe", path);
    default:
      return;
  }
}

// What is to be said about a file that is refused; nothing for one that is taken unless its content
// is broken.
const char* s_expectedReason(Kind kind, mode_t mode) {
  if (kind == Kind::Directory || kind == Kind::Pipe) return "is not a regular file";
  if (kind != Kind::File && kind != Kind::LinkToFile) return "cannot be read";
  if (geteuid() != 0 && (mode & S_IRUSR) == 0) return "cannot be read";
  return (mode & S_IWOTH) != 0 ? "may be written by everyone" : nullptr;
}

void s_checkRefusal(const Exception& refusal, const std::string& path, const char* reason) {
  const std::string& detail = refusal.stringParameter();
  // The group at the end of the content is one that is read.
  const char* const expected = reason != nullptr ? reason : " is broken in line ";
  require(detail.find(expected) != std::string::npos, "reason", detail);
  require(refusal.code() == 4 && refusal.context() == "Database::Connection", "content", detail);
  require(detail.find(path) != std::string::npos, "the file is named", detail);
  require(!hasControls(refusal.what()), "a message without controls", refusal.what());
}

void s_checkConnection(const std::string& path) {
  const Variable named(s_variable, path);
  bool hasFailed = false;
  try {
    const Connection connection("");
  } catch (const Exception& failure) {
    hasFailed = true;
    const std::string_view message = failure.what();
    require(failure.code() == 4 || failure.code() > 1000, "code of the failure", message);
    require(!hasControls(message), "a message without controls", message);
    require(message.find(s_password) == std::string_view::npos, "no password", message);
  }
  require(hasFailed, "there is no server", path);
}

// Checks the file, and a connection with its options if it may be taken.
void s_checkFile(const std::string& path, const char* reason) {
  try {
    const OptionSource source = OptionSource::of(path);
    require(reason == nullptr, "the file is refused", path);
    require(source.file == path, "the file is the one that was named", source.file);
    require(source.text().find(path) != std::string::npos, "messages name the file", path);
  } catch (const Exception& refusal) {
    return s_checkRefusal(refusal, path, reason);
  }
  s_checkConnection(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  static const ScratchDirectory s_directory;
  const auto kind = static_cast<Kind>(data[0] % static_cast<unsigned>(Kind::Count));
  const auto mode = static_cast<mode_t>(data[1] * 2U) | S_IWUSR;
  const std::string_view rest = asText(data, size).substr(3);
  // Whoever gives it away in the file's name or the user's is not the one to be stopped here.
  if (rest.find(s_password) != std::string_view::npos) return 0;
  const std::string_view name = rest.substr(0, data[2]);

  const std::string named = s_directory.path() + "/named";
  const std::string target = s_directory.path() + "/target";
  std::filesystem::create_directory(named);
  const std::string path = named + "/" + s_name(name);
  const std::string& file = kind == Kind::File ? path : target;
  if (kind == Kind::File || kind == Kind::LinkToFile) {
    s_write(file, s_directory.path() + "/nowhere", rest.substr(name.size()));
    require(chmod(file.c_str(), mode) == 0, "rights to the file", file);
  }
  s_create(kind, path, target);
  s_checkFile(path, s_expectedReason(kind, mode));
  std::filesystem::remove_all(named);
  std::filesystem::remove(target);
  return 0;
}
