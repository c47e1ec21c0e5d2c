// A file in a directory of its own, and a thread without the rights to read it.
#ifndef TSL_TESTS_SUPPORT_SCRATCHFILE_H
#define TSL_TESTS_SUPPORT_SCRATCHFILE_H

#include <sys/fsuid.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Tessel::Testing {

// A path in a new directory that is removed with it; the file is not there before it is written.
// One thread.
class ScratchFile {
 public:
  ScratchFile() {
    if (mkdtemp(m_directory.data()) == nullptr)
      throw std::runtime_error("no directory " + m_directory);
  }
  ~ScratchFile() {
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  [[nodiscard]] const std::string& directory() const { return m_directory; }
  [[nodiscard]] std::string path() const { return m_directory + "/table"; }
  void write(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }
  [[nodiscard]] std::string text() const {
    std::ostringstream all;
    all << std::ifstream(path(), std::ios::binary).rdbuf();
    return all.str();
  }
  // Makes it a named pipe: who opens it waits for the other end.
  void makePipe() const {
    if (mkfifo(path().c_str(), S_IRUSR | S_IWUSR) != 0) throw std::runtime_error("no pipe");
  }
  // Takes all rights to the file away from everybody, and lets everybody enter the directory.
  void forbid() const {
    std::filesystem::permissions(m_directory, std::filesystem::perms(0755));
    std::filesystem::permissions(path(), std::filesystem::perms::none);
  }

 private:
  std::string m_directory = "/tmp/tsl-file-XXXXXX";
};

// While it lives, this thread opens files as the user "nobody" does, also when the tests run as
// root. Connections that are open go on.
class AsNobody {
 public:
  AsNobody() : m_user(static_cast<uid_t>(setfsuid(s_nobody))) {}
  ~AsNobody() { setfsuid(m_user); }
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;

 private:
  static constexpr uid_t s_nobody = 65534;
  uid_t m_user;
};

}  // namespace Tessel::Testing

#endif
