// What a fuzz target that needs files has for its own: a directory, and the variables that name it.
#ifndef TSL_FUZZ_SCRATCHDIRECTORY_H
#define TSL_FUZZ_SCRATCHDIRECTORY_H

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "fuzz/Fuzz.h"

namespace Tessel::Fuzz {

// A new directory that is removed with the object. In memory where the system has such a file
// system: the targets create and change files thousands of times a second.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    const bool hasMemory = std::filesystem::is_directory("/dev/shm");
    m_path = hasMemory ? "/dev/shm/tsl-fuzz-XXXXXX" : "/tmp/tsl-fuzz-XXXXXX";
    require(mkdtemp(m_path.data()) != nullptr, "a directory for the files", m_path);
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

// Sets an environment variable that names files to the libraries, as long as it lives. One thread.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : m_name(name) {
    const char* const before = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): one thread
    if (before != nullptr) m_before = before;
    ::setenv(name, value.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
  }
  ~Variable() {
    if (m_before) {
      ::setenv(m_name, m_before->c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
    } else {
      ::unsetenv(m_name);  // NOLINT(concurrency-mt-unsafe): one thread
    }
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* m_name;
  std::optional<std::string> m_before;
};

}  // namespace Tessel::Fuzz

#endif
