// What the tests of the lookup service share: rows from memory, a table made of them, and a
// configuration of domains and mail users.
#ifndef TSL_TESTS_SERVE_SERVESUPPORT_H
#define TSL_TESTS_SERVE_SERVESUPPORT_H

#include <sys/resource.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cmf/Writer.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/RowStore.h"
#include "serve/image/Table.h"
#include "support/ScratchFile.h"

namespace Tessel::Serve {

using Rows = std::vector<std::pair<std::string, std::string>>;

// Hands over `rows`.
inline RowSource sourceOf(Rows rows) {
  return [rows = std::move(rows)](const TakeRow& take) {
    for (const auto& [first, second] : rows) take(first, second);
  };
}

// Gives `table` an image of `rows`, which is known to be right at `time`.
inline void publishRows(Table& table, const Rows& rows, Clock::time_point time = Clock::now()) {
  table.publish(std::make_shared<const TableImage>(table.kind(), sourceOf(rows)));
  table.confirm(time);
}

// No descriptor with a number of at least `most` can be opened while in scope. One at a time.
class DescriptorShortage {
 public:
  explicit DescriptorShortage(rlim_t most = 0) {
    // A sanitizer opens a pipe to look at the first object of a class.
    static_cast<void>(
        std::make_exception_ptr(std::system_error(EMFILE, std::generic_category(), "")));
    getrlimit(RLIMIT_NOFILE, &m_before);
    rlimit few = m_before;
    few.rlim_cur = most;
    setrlimit(RLIMIT_NOFILE, &few);
  }
  ~DescriptorShortage() { setrlimit(RLIMIT_NOFILE, &m_before); }
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;

 private:
  rlimit m_before{};
};

// Has the configuration lie in `directory` while in scope. One thread.
class ConfigurationDirectory {
 public:
  explicit ConfigurationDirectory(const std::string& directory) {
    if (const char* const before = getenv(s_variable)) m_before = before;
    setenv(s_variable, directory.c_str(), 1);
  }
  ~ConfigurationDirectory() {
    if (m_before) {
      setenv(s_variable, m_before->c_str(), 1);
    } else {
      unsetenv(s_variable);
    }
  }
  ConfigurationDirectory(const ConfigurationDirectory&) = delete;
  ConfigurationDirectory& operator=(const ConfigurationDirectory&) = delete;

 private:
  static constexpr const char* s_variable = "TSL_CMF_PATH";

  std::optional<std::string> m_before;
};

// A configuration while in scope: the domains d.example (users bob and Alice, the room "room", and
// gone, who is disabled), empty.example and xn--bcher-kva.example (user ann). One thread.
class ServedDomains {
 public:
  ServedDomains() {
    CMF::Writer writer;
    writer.addDomain("d.example");
    writer.addUser("d.example", "bob", CMF::MailUserMailbox);
    writer.addUser("d.example", "Alice", CMF::MailUserMailbox);
    writer.addUser("d.example", "gone", CMF::MailUserDisabled);
    writer.addUser("d.example", "room", CMF::MailUserShared);
    writer.addDomain("empty.example");
    writer.addDomain("xn--bcher-kva.example");
    writer.addUser("xn--bcher-kva.example", "ann", CMF::MailUserMailbox);
    writer.commit();
  }

  [[nodiscard]] const std::string& directory() const { return m_scratch.directory(); }
  // What it is now, in memory.
  [[nodiscard]] static ConfigurationPointer image() {
    return std::make_shared<const ConfigurationImage>(copyConfiguration());
  }

 private:
  Testing::ScratchFile m_scratch;
  ConfigurationDirectory m_directory{m_scratch.directory()};
};

// A configuration like ServedDomains while in scope, in files that this process never opens: others
// may be damaged by what happens to them. One thread.
class ServedFiles {
 public:
  ServedFiles() {
    const ServedDomains served;
    std::filesystem::copy_file(served.directory() + "/data.mdb", m_good.path());
    restore();
  }

  [[nodiscard]] std::string data() const { return m_scratch.directory() + "/data.mdb"; }
  [[nodiscard]] std::string lock() const { return m_scratch.directory() + "/lock.mdb"; }
  // Writes new files over what is there.
  void restore() const {
    std::filesystem::copy_file(m_good.path(), data(),
                               std::filesystem::copy_options::overwrite_existing);
    std::ofstream(lock(), std::ios::trunc).flush();
  }

 private:
  Testing::ScratchFile m_good;
  Testing::ScratchFile m_scratch;
  ConfigurationDirectory m_directory{m_scratch.directory()};
};

}  // namespace Tessel::Serve

#endif
